// The types of the numbers that channels bring and files hold: name, size and kind of each, in one table.
#pragma once

#include <cstdint>
#include <iterator>
#include <limits>
#include <optional>
#include <string_view>

namespace vu {

enum class ValueType { kFloat32, kFloat64, kInt8, kUint8, kInt16, kUint16, kInt32, kUint32, kInt64, kUint64 };
enum class ValueKind { kFloat, kSigned, kUnsigned };

struct ValueTypeRow {
    ValueType type;
    const char *name; // as stanzas, descriptions and data files have it
    uint32_t size;    // bytes
    ValueKind kind;
};

// In the order of ValueType.
inline constexpr ValueTypeRow kValueTypes[] = {
    {ValueType::kFloat32, "float32", 4, ValueKind::kFloat},
    {ValueType::kFloat64, "float64", 8, ValueKind::kFloat},
    {ValueType::kInt8, "int8", 1, ValueKind::kSigned},
    {ValueType::kUint8, "uint8", 1, ValueKind::kUnsigned},
    {ValueType::kInt16, "int16", 2, ValueKind::kSigned},
    {ValueType::kUint16, "uint16", 2, ValueKind::kUnsigned},
    {ValueType::kInt32, "int32", 4, ValueKind::kSigned},
    {ValueType::kUint32, "uint32", 4, ValueKind::kUnsigned},
    {ValueType::kInt64, "int64", 8, ValueKind::kSigned},
    {ValueType::kUint64, "uint64", 8, ValueKind::kUnsigned},
};

constexpr bool isInOrder()
{
    for (size_t i = 0; i < std::size(kValueTypes); i++)
        if (kValueTypes[i].type != static_cast<ValueType>(i))
            return false;
    return true;
}
static_assert(isInOrder(), "a type is the number of its row");

constexpr const ValueTypeRow &rowOf(ValueType type)
{
    return kValueTypes[static_cast<size_t>(type)];
}
constexpr const char *nameOf(ValueType type)
{
    return rowOf(type).name;
}
constexpr uint32_t sizeOf(ValueType type)
{
    return rowOf(type).size;
}

// The type of that name; empty for any other text.
constexpr std::optional<ValueType> valueTypeNamed(std::string_view name)
{
    for (const ValueTypeRow &row : kValueTypes)
        if (name == row.name)
            return row.type;
    return std::nullopt;
}

// The float type that a text such as "sequential_float32" names somewhere in it, as the library looks for it.
constexpr std::optional<ValueType> floatTypeIn(std::string_view text)
{
    for (const ValueTypeRow &row : kValueTypes)
        if (row.kind == ValueKind::kFloat && text.find(row.name) != std::string_view::npos)
            return row.type;
    return std::nullopt;
}

// Lowest finite number of a float type; empty for integers, where every number may be a measured one.
constexpr std::optional<double> lowestFloat(ValueType type)
{
    switch (type) {
    case ValueType::kFloat32: return std::numeric_limits<float>::lowest();
    case ValueType::kFloat64: return std::numeric_limits<double>::lowest();
    case ValueType::kInt8:
    case ValueType::kUint8:
    case ValueType::kInt16:
    case ValueType::kUint16:
    case ValueType::kInt32:
    case ValueType::kUint32:
    case ValueType::kInt64:
    case ValueType::kUint64: return std::nullopt;
    }
    return std::nullopt;
}

} // namespace vu
