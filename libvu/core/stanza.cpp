#include "libvu/core/stanza_private.h"

#include <yajl/yajl_tree.h>

#include <cstdio>

#include "libvu/core/c_locale_private.h"
#include "libvu/core/json_depth_private.h"

namespace libvu {

bool Json::isObject() const
{
    return YAJL_IS_OBJECT(value_);
}

bool Json::isArray() const
{
    return YAJL_IS_ARRAY(value_);
}

bool Json::isTrue() const
{
    return YAJL_IS_TRUE(value_);
}

const char *Json::text() const
{
    return YAJL_GET_STRING(value_);
}

std::optional<double> Json::number() const
{
    if (!YAJL_IS_NUMBER(value_))
        return std::nullopt;
    // The parser marks a very large or very small number as neither form, but its double is right.
    if (YAJL_IS_INTEGER(value_))
        return static_cast<double>(YAJL_GET_INTEGER(value_));
    return value_->u.number.d;
}

std::optional<int64_t> Json::integer() const
{
    if (!YAJL_IS_INTEGER(value_))
        return std::nullopt;
    return YAJL_GET_INTEGER(value_);
}

std::optional<double> Json::floatingForm() const
{
    if (!YAJL_IS_DOUBLE(value_))
        return std::nullopt;
    return YAJL_GET_DOUBLE(value_);
}

size_t Json::size() const
{
    return isArray() ? YAJL_GET_ARRAY(value_)->len : 0;
}

Json Json::at(size_t index) const
{
    return index < size() ? Json(YAJL_GET_ARRAY(value_)->values[index]) : Json();
}

Json Json::member(const char *key) const
{
    if (!isObject())
        return Json();
    const char *path[] = {key, nullptr};
    return Json(yajl_tree_get(value_, path, yajl_t_any));
}

Stanza::Stanza(const char *json, char (&errorText)[kErrorSize]) : tree_(nullptr)
{
    const CLocaleScope decimalPoints;
    errorText[0] = '\0';
    if (!json)
        return;
    if (isNestedTooDeeply(json))
        std::snprintf(errorText, kErrorSize, "nested deeper than %d levels", kMostJsonLevels);
    else
        tree_ = yajl_tree_parse(json, errorText, kErrorSize);
}

Stanza::~Stanza()
{
    release();
}

void Stanza::release()
{
    yajl_tree_free(tree_);
    tree_ = nullptr;
}

} // namespace libvu
