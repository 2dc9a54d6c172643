#include "libvu/core/json_depth_private.h"

#include <cstring>

namespace {

// The last character of the string that begins at `at`, or of the text if the string has no end.
const char *endOfString(const char *at)
{
    while (at[1] != '\0' && at[1] != '"') {
        at++;
        if (*at == '\\' && at[1] != '\0')
            at++;
    }
    return at[1] == '"' ? at + 1 : at;
}

// The same for a comment of either form; any other slash is a character like others.
const char *endOfComment(const char *at)
{
    const char *end = at;
    if (at[1] == '/')
        end = std::strchr(at, '\n');
    else if (at[1] == '*' && (end = std::strstr(at + 2, "*/")))
        end++;
    return end ? end : at + std::strlen(at) - 1;
}

} // namespace

bool libvu::isNestedTooDeeply(const char *json)
{
    int levels = 0;
    for (const char *at = json; *at != '\0'; at++) {
        switch (*at) {
        case '"': at = endOfString(at); break;
        case '/': at = endOfComment(at); break;
        case '[':
        case '{':
            if (++levels > kMostJsonLevels)
                return true;
            break;
        case ']':
        case '}': levels--; break;
        default: break;
        }
    }
    return false;
}
