#include "vu/description/located_json.h"

#include <fmt/format.h>
#include <iterator>
#include <vector>

#include "vu/support/json_depth.h"
#include "vu/support/texts.h"

namespace vu {

namespace {

// Counts lines while the parser reads. A number ends at the character after it, so a newline counts only when
// the parser goes beyond it.
struct CountingIterator {
    using iterator_category = std::input_iterator_tag;
    using value_type = char;
    using difference_type = std::ptrdiff_t;
    using pointer = const char *;
    using reference = const char &;

    const char *at;
    int *line;
    bool *newline_read;

    const char &operator*() const { return *at; }
    CountingIterator &operator++()
    {
        if (*newline_read)
            ++*line;
        *newline_read = *at == '\n';
        ++at;
        return *this;
    }
    bool operator==(const CountingIterator &other) const { return at == other.at; }
    bool operator!=(const CountingIterator &other) const { return at != other.at; }
};

// Builds the tree as the parser calls, and notes the line of every value under its path.
class Builder : public nlohmann::json_sax<Json> {
public:
    Builder(Json &root, std::map<std::string, int> &lines, const int &line)
        : root_(root), lines_(lines), line_(line)
    {
    }

    bool null() override { return add(nullptr); }
    bool boolean(bool value) override { return add(value); }
    bool number_integer(number_integer_t value) override { return add(value); }
    bool number_unsigned(number_unsigned_t value) override { return add(value); }
    bool number_float(number_float_t value, const string_t &) override { return add(value); }
    bool string(string_t &value) override { return add(value); }
    bool binary(binary_t &) override { return false; }
    bool start_object(size_t) override { return open(Json::object()); }
    bool start_array(size_t) override { return open(Json::array()); }
    bool end_object() override { return close(); }
    bool end_array() override { return close(); }
    bool key(string_t &name) override
    {
        const Level &level = levels_.back();
        key_ = name;
        if (!level.value->contains(name))
            return true;
        failed_path_ = memberPath(level.path, name);
        failure_ = "stands twice";
        return false;
    }
    bool parse_error(size_t, const std::string &, const nlohmann::detail::exception &error) override
    {
        const std::string text = error.what();
        const size_t bracket = text.find("] ");
        failure_ = bracket == std::string::npos ? text : text.substr(bracket + 2);
        // The parser's own place is left out: it does not know the file, and the line is known here.
        if (const size_t place = failure_.find(": ");
            failure_.starts_with("parse error at") && place != std::string::npos)
            failure_ = "not JSON: " + failure_.substr(place + 2);
        if (failure_.find("UTF-8") != std::string::npos)
            failure_ = "not UTF-8: expected JSON in UTF-8";
        failure_ = printable(failure_); // it may quote the text
        return false;
    }

    const std::string &failure() const { return failure_; }
    const std::string &failedPath() const { return failed_path_; }

private:
    struct Level {
        Json *value;
        std::string path;
    };

    std::string place(Json value, Json *&placed)
    {
        if (levels_.empty()) {
            root_ = std::move(value);
            placed = &root_;
            lines_[""] = line_;
            return {};
        }
        Json &parent = *levels_.back().value;
        const std::string path = parent.is_array() ? elementPath(levels_.back().path, parent.size())
                                                   : memberPath(levels_.back().path, key_);
        if (parent.is_array()) {
            parent.push_back(std::move(value));
            placed = &parent.back();
        } else {
            placed = &(parent[key_] = std::move(value));
        }
        lines_[path] = line_;
        return path;
    }

    bool add(Json value)
    {
        Json *placed = nullptr;
        place(std::move(value), placed);
        return true;
    }

    bool open(Json container)
    {
        if (levels_.size() == kMostJsonLevels) {
            failure_ = fmt::format("nested deeper than {} levels", kMostJsonLevels);
            return false;
        }
        Json *placed = nullptr;
        std::string path = place(std::move(container), placed);
        levels_.push_back({placed, std::move(path)});
        return true;
    }

    bool close()
    {
        levels_.pop_back();
        return true;
    }

    Json &root_;
    std::map<std::string, int> &lines_;
    const int &line_;
    std::vector<Level> levels_;
    std::string key_;
    std::string failure_;
    std::string failed_path_;
};

} // namespace

std::string memberPath(const std::string &path, const std::string &key)
{
    return path.empty() ? key : path + "." + key;
}

std::string elementPath(const std::string &path, size_t index)
{
    return fmt::format("{}[{}]", path, index);
}

namespace {

// What is wrong with a text before a parser looks at it; empty: nothing.
std::string refusalOf(std::string_view text)
{
    if (text.find_first_not_of(" \t\r\n") == std::string_view::npos)
        return "is empty: expected a JSON object";
    if (text.starts_with("\xEF\xBB\xBF"))
        return "begins with a byte order mark: expected UTF-8 without one";
    if (text.starts_with("\xFF\xFE") || text.starts_with("\xFE\xFF"))
        return "is UTF-16: expected UTF-8";
    return {};
}

} // namespace

LocatedJson::LocatedJson(std::string file, std::string_view text) : file_(std::move(file))
{
    int line = 1;
    if (std::string refusal = refusalOf(text); !refusal.empty())
        throw DescriptionError({{file_, line, "", std::move(refusal)}}, {});
    bool newlineRead = false;
    const auto at = [&](const char *where) { return CountingIterator{where, &line, &newlineRead}; };
    Builder builder(root_, lines_, line);
    if (!Json::sax_parse(at(text.data()), at(text.data() + text.size()), &builder))
        throw DescriptionError({{file_, line, builder.failedPath(), builder.failure()}}, {});
}

int LocatedJson::line(std::string path) const
{
    for (;;) {
        if (const auto found = lines_.find(path); found != lines_.end())
            return found->second;
        const size_t cut = path.find_last_of(".[");
        path.erase(cut == std::string::npos ? 0 : cut);
    }
}

Finding LocatedJson::finding(const std::string &path, std::string_view text) const
{
    return {file_, line(path), path, std::string(text)};
}

} // namespace vu
