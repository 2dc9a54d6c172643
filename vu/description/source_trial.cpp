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

std::string optionIn(const std::string &word)
{
    return isOption(word) ? word.substr(2, word.find('=') - 2) : std::string();
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

// The option that a refusal is about, as far as its text says so.
std::string optionNamedIn(const std::string &refusal, const Source &source)
{
    for (const std::string &word : source.arguments)
        if (isOption(word) && refusal.find(word.substr(0, word.find('='))) != std::string::npos)
            return optionIn(word);
    return refusal.find("column") != std::string::npos ? "column" : "";
}

} // namespace

std::vector<SourceRefusal> refusalsOf(const Source &source, bool deep)
{
    // Reading ends at the first refusal, so each option is tried with nothing but what it cannot do without.
    std::vector<SourceRefusal> refusals;
    std::vector<std::string> required;
    std::ranges::remove_copy_if(source.arguments, std::back_inserter(required), isOption);
    required.push_back("--listen=unix:any");
    const auto tryWith = [&](const std::vector<std::string> &words, const std::string &option) {
        const std::string refusal = refusalOf(source.kind, words, false);
        if (!refusal.empty() && std::ranges::find(refusals, refusal, &SourceRefusal::text) == refusals.end())
            refusals.push_back({option, refusal});
    };
    tryWith(required, "");
    for (const std::string &word : source.arguments) {
        if (!isOption(word) || word.starts_with("--listen="))
            continue;
        required.push_back(word);
        tryWith(required, optionIn(word));
        required.pop_back();
    }
    if (!deep || !refusals.empty())
        return refusals;
    if (const std::string refusal = refusalOf(source.kind, source.arguments, true); !refusal.empty())
        refusals.push_back({optionNamedIn(refusal, source), refusal});
    return refusals;
}

const std::vector<std::string> &sourceKinds()
{
    static const std::vector<std::string> kinds = [] {
        CLI::App app;
        Action chosen;
        addSource(app, chosen);
        std::vector<std::string> names;
        for (const CLI::App *kind : app.get_subcommand("source")->get_subcommands({}))
            names.push_back(kind->get_name());
        return names;
    }();
    return kinds;
}

std::vector<std::string> optionsOf(const std::string &kind)
{
    CLI::App app;
    Action chosen;
    addSource(app, chosen);
    std::vector<std::string> names;
    for (const CLI::Option *option : app.get_subcommand("source")->get_subcommand(kind)->get_options())
        names.insert(names.end(), option->get_lnames().begin(), option->get_lnames().end());
    return names;
}

} // namespace vu
