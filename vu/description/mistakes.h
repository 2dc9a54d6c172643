// Typed reading of a description, key by key, that goes on after a mistake: the user sees all of them at
// once.
#pragma once

#include <initializer_list>
#include <limits>
#include <string>
#include <vector>

#include "vu/description/located_json.h"

namespace vu {

// How a warning of a description is told.
std::string warningLine(const std::string &warning);

class Mistakes {
public:
    explicit Mistakes(const LocatedJson &text) : text_(text) {}

    void add(const std::string &path, std::string_view what) { lines_.push_back(text_.mistake(path, what)); }
    // A line for a path without being a mistake; without a text, the front of such a line.
    std::string line(const std::string &path, std::string_view what) const
    {
        return text_.mistake(path, what);
    }
    size_t count() const { return lines_.size(); }
    // InputError with all lines, if there are any, and behind them those of the warnings.
    void throwIfAny(const std::vector<std::string> &warnings) const;

private:
    const LocatedJson &text_;
    std::vector<std::string> lines_;
};

// One object of the description. Each read notes what is wrong and answers with the fallback; close() names
// the keys that nobody asked for.
class Fields {
public:
    // Anything but an object is a mistake and reads as an empty one.
    Fields(Mistakes &mistakes, const Json &value, std::string path);

    bool has(const char *key) const { return object_->contains(key); }
    // The value under `key`, or null; the key counts as asked for.
    const Json *find(const char *key);
    std::string pathOf(const std::string &key) const { return memberPath(path_, key); }
    const std::string &path() const { return path_; }
    const Json &object() const { return *object_; }
    Mistakes &mistakes() { return mistakes_; }

    std::string text(const char *key); // required, not empty
    std::string text(const char *key, const std::string &fallback);
    std::string word(const char *key, std::initializer_list<const char *> words, const char *fallback);
    bool flag(const char *key, bool fallback);

    struct Range {
        double above = -std::numeric_limits<double>::infinity(); // excluded
        double most = std::numeric_limits<double>::infinity();   // included, unless infinite
        const char *expected = "a finite number";
    };
    double number(const char *key, const Range &range); // required
    double number(const char *key, const Range &range, double fallback);
    // The elements of an array that may be missing.
    const Json &array(const char *key);

    // Keys that nobody asked for.
    std::vector<std::string> notAsked() const;
    // Makes a mistake of each of them.
    void close();

private:
    double numberIn(const char *key, const Json &value, const Range &range, double fallback);

    Mistakes &mistakes_;
    const Json *object_;
    std::string path_;
    std::vector<std::string> asked_;
};

inline const Fields::Range kAnyNumber{};
inline const Fields::Range kAboveZero{0.0, std::numeric_limits<double>::infinity(), "a number above 0"};
inline const Fields::Range kSampleRate{0.0, 1e9, "a number above 0, at most 1000000000"};
inline const Fields::Range kPipeRate{0.0, 1e6, "a number above 0, at most 1000000"};

} // namespace vu
