// One object of a description, read key by key with its type and range. Each read notes what is wrong and
// answers with the fallback; close() names the keys that nobody asked for.
#pragma once

#include <initializer_list>
#include <limits>
#include <string>
#include <vector>

#include "vu/description/findings.h"

namespace vu {

class ObjectReader {
public:
    // Anything but an object is a mistake and reads as an empty one.
    ObjectReader(Findings &findings, const Json &value, std::string path);

    bool has(const char *key) const { return object_->contains(key); }
    // The value under `key`, or null; the key counts as asked for.
    const Json *find(const char *key);
    std::string pathOf(const std::string &key) const { return memberPath(path_, key); }
    const std::string &path() const { return path_; }
    const Json &object() const { return *object_; }
    Findings &findings() { return findings_; }

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

    // Keys that are fine here, whoever reads them.
    void know(std::initializer_list<const char *> keys);
    // Makes a mistake of every other key, with the known one that is nearest.
    void close();

private:
    double numberIn(const char *key, const Json &value, const Range &range, double fallback);

    Findings &findings_;
    const Json *object_;
    std::string path_;
    std::vector<std::string> asked_;
};

inline const ObjectReader::Range kAnyNumber{};
inline const ObjectReader::Range kAboveZero{0.0, std::numeric_limits<double>::infinity(), "a number above 0"};
inline const ObjectReader::Range kSampleRate{0.0, 1e9, "a number above 0, at most 1000000000"};
inline const ObjectReader::Range kPipeRate{0.0, 1e6, "a number above 0, at most 1000000"};
inline const ObjectReader::Range kSeconds{-1e-300, 1e12, "a number of seconds from 0 on"};

} // namespace vu
