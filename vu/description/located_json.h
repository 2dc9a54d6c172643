// A JSON text that remembers the line of each of its values, so that a mistake can be shown where it was
// made.
#pragma once

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "vu/description/finding.h"

namespace vu {

using Json = nlohmann::ordered_json; // keys stay in the order in which they were written

class LocatedJson {
public:
    // Parses `text`; `file` is what messages call it. Throws DescriptionError, one line, for text that is not
    // JSON in UTF-8, for a key that one object has twice and for nesting beyond 64 levels.
    LocatedJson(std::string file, std::string_view text);

    const Json &root() const { return root_; }
    const std::string &file() const { return file_; }
    // Line of the value at a path such as "channels[2].stanza.name"; of the nearest thing around it where
    // there is no such value.
    int line(std::string path) const;
    // A text about the value at a path.
    Finding finding(const std::string &path, std::string_view text) const;

private:
    std::string file_;
    Json root_;
    std::map<std::string, int> lines_;
};

std::string memberPath(const std::string &path, const std::string &key);
std::string elementPath(const std::string &path, size_t index);

} // namespace vu
