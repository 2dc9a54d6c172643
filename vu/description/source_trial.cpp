#include "vu/description/source_trial.h"

#include <CLI/CLI.hpp>
#include <algorithm>

#include "vu/command.h"

namespace vu {

namespace {

bool isOption(const std::string &word)
{
    return word.starts_with("--");
}

// What `vu source KIND` has against these words; empty: nothing.
std::string refusalOf(const std::string &kind, std::vector<std::string> words, bool deep)
{
    CLI::App app;
    Action chosen;
    addSource(app, chosen);
    words.insert(words.begin(), {"source", kind, "--try"});
    std::reverse(words.begin(), words.end()); // as CLI11 takes them
    try {
        app.parse(words);
        if (deep)
            chosen();
    } catch (const std::exception &error) {
        return error.what();
    }
    return "";
}

} // namespace

std::vector<std::string> refusalsOf(const Source &source, bool deep)
{
    // Reading ends at the first refusal, so each option is tried with nothing but what it can not do without.
    std::vector<std::string> refusals, required;
    std::ranges::remove_copy_if(source.arguments, std::back_inserter(required), isOption);
    required.push_back("--listen=unix:any");
    const auto tryWith = [&](const std::vector<std::string> &words, bool all) {
        const std::string refusal = refusalOf(source.kind, words, all);
        if (!refusal.empty() && std::ranges::find(refusals, refusal) == refusals.end())
            refusals.push_back(refusal);
    };
    tryWith(required, false);
    for (const std::string &word : source.arguments) {
        if (!isOption(word) || word.starts_with("--listen="))
            continue;
        required.push_back(word);
        tryWith(required, false);
        required.pop_back();
    }
    if (deep && refusals.empty())
        tryWith(source.arguments, true);
    return refusals;
}

} // namespace vu
