// One channel of a description: its stanza, its source, how it is stored, its signals.
#pragma once

#include <filesystem>

#include "vu/description/description.h"
#include "vu/description/findings.h"

namespace vu {

// What every part of a description is read with.
struct Reading {
    Findings &findings;
    Description &test;
    std::filesystem::path folder;
    const ReadOptions &options;

    std::string resolved(const std::string &path) const { return (folder / path).string(); }
};

Channel readChannel(const Json &value, const std::string &path, const Reading &reading);

} // namespace vu
