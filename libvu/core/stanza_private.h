// JSON from outside: a stanza or a stream's metainfo, read key by key. The only place that knows the parser.
//
// A value of another type than the one asked for counts as missing. A number is its integer value if JSON
// holds a valid one, else its floating-point value, infinite ones included. Only top-level keys are looked at
// by text() and number(); deeper values are reached through Json.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

struct yajl_val_s;

namespace libvu {

// One value of a parsed tree, or none. Lives as long as its Stanza.
class Json {
public:
    Json() = default;
    explicit Json(yajl_val_s *value) : value_(value) {}

    bool exists() const { return value_ != nullptr; }
    bool isObject() const;
    bool isArray() const;
    bool isTrue() const;
    const char *text() const; // null unless a string
    std::optional<double> number() const;
    std::optional<int64_t> integer() const;     // the number, only if JSON holds a valid integer
    std::optional<double> floatingForm() const; // the number, only if it has a finite floating-point form
    size_t size() const;                        // elements of an array, else 0
    Json at(size_t index) const;                // element of an array
    Json member(const char *key) const;         // of an object, whatever its type

private:
    yajl_val_s *value_ = nullptr;
};

class Stanza {
public:
    static constexpr size_t kErrorSize = 1024;

    // Parses `json` in the "C" locale. `errorText` says why it is no JSON, or is empty. Text that is nested
    // too deeply is not parsed at all.
    Stanza(const char *json, char (&errorText)[kErrorSize]);
    ~Stanza();
    Stanza(const Stanza &) = delete;
    Stanza &operator=(const Stanza &) = delete;

    bool parsed() const { return tree_ != nullptr; }
    // Frees the tree ahead of the object's end; values and texts out of it are gone then.
    void release();

    yajl_val_s *tree() const { return tree_; }
    Json root() const { return Json(tree_); }
    const char *text(const char *key) const { return root().member(key).text(); }
    std::optional<double> number(const char *key) const { return root().member(key).number(); }
    double number(const char *key, double otherwise) const { return number(key).value_or(otherwise); }
    bool isTrue(const char *key) const { return root().member(key).isTrue(); }

private:
    yajl_val_s *tree_;
};

} // namespace libvu
