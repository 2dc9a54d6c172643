#include "vu/run_command.h"

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <exception>
#include <fmt/format.h>
#include <iostream>
#include <new>
#include <nlohmann/json.hpp>
#include <unistd.h>

#include "vu/command.h"
#include "vu/support/nearest.h"
#include "vu/support/say.h"
#include "vu/support/texts.h"

namespace vu {

namespace {

constexpr char kNoMemory[] = "vu: out of memory\n";
constexpr char kNoMemoryJson[] = "{\n  \"status\": 1,\n  \"mistakes\": [\n    \"out of memory\"\n  ]\n}\n";
constexpr size_t kWordShown = 60; // characters of a wrong word in a message

std::string shown(const std::string &word)
{
    return printable(word, kWordShown);
}

bool wantsJson(int argc, const char *const *argv)
{
    return std::any_of(argv + 1, argv + argc,
                       [](const char *word) { return std::strcmp(word, "--json") == 0; });
}

std::string fullName(const CLI::App *command)
{
    return command->get_parent() ? fullName(command->get_parent()) + ' ' + command->get_name() : "vu";
}

std::vector<std::string> commandNames(const CLI::App &app)
{
    std::vector<std::string> names;
    for (const CLI::App *command : app.get_subcommands([](const CLI::App *) { return true; }))
        names.push_back(command->get_name());
    return names;
}

std::vector<std::string> optionNames(const CLI::App &app)
{
    std::vector<std::string> names;
    for (const CLI::Option *option : app.get_options())
        for (const std::string &name : option->get_lnames())
            names.push_back("--" + name);
    return names;
}

std::string unknownCommand(const CLI::App &app, const std::string &word)
{
    const auto names = commandNames(app);
    return fmt::format("{}: expected {}, got '{}'{}", fullName(&app), fmt::join(names, ", "), shown(word),
                       didYouMean(word, names));
}

// What is wrong with a command line that was refused, with the word and what was probably meant; empty if
// every command and option in it is known.
std::string unknownWord(const CLI::App &app, int argc, const char *const *argv)
{
    const CLI::App *at = &app;
    for (int i = 1; i < argc; ++i) {
        const std::string word = argv[i];
        if (word == "--")
            break;
        if (word.starts_with("--")) {
            const std::string name = word.substr(0, word.find('='));
            if (!at->get_option_no_throw(name))
                return fmt::format("{}: there is no option '{}'{}", fullName(at), shown(name),
                                   didYouMean(name, optionNames(*at)));
        } else if (const auto names = commandNames(*at); !names.empty() && !word.starts_with('-')) {
            if (std::ranges::find(names, word) == names.end())
                return unknownCommand(*at, word);
            at = at->get_subcommand(word);
        }
    }
    const auto names = commandNames(*at);
    return names.empty() ? "" : fmt::format("{}: expected one of {}", fullName(at), fmt::join(names, ", "));
}

const CLI::App *chosenCommand(const CLI::App &app)
{
    const auto chosen = app.get_subcommands();
    return chosen.empty() ? &app : chosenCommand(*chosen.front());
}

// "Could not convert: --for = x" in our words.
std::string conversionMistake(const CLI::App &command, const std::string &text)
{
    constexpr std::string_view kFront = "Could not convert: ", kMiddle = " = ";
    const size_t middle = text.find(kMiddle);
    if (!text.starts_with(kFront) || middle == std::string::npos)
        return shown(text);
    const std::string name = text.substr(kFront.size(), middle - kFront.size());
    const CLI::Option *option = command.get_option_no_throw(name);
    const std::string type = option ? option->get_type_name() : "";
    return fmt::format("{}: expected {}, got '{}'", name,
                       type.starts_with("FLOAT")  ? "a number"
                       : type.starts_with("UINT") ? "a whole number from 0"
                       : type.starts_with("INT")  ? "a whole number"
                                                  : "another value",
                       shown(text.substr(middle + kMiddle.size())));
}

std::string parseMistake(const CLI::App &app, const CLI::ParseError &error, int argc, const char *const *argv)
{
    if (std::string unknown = unknownWord(app, argc, argv); !unknown.empty())
        return unknown;
    const CLI::App *command = chosenCommand(app);
    const std::string text = dynamic_cast<const CLI::ConversionError *>(&error)
                                 ? conversionMistake(*command, error.what())
                                 : printable(error.what(), 3 * kWordShown);
    return fmt::format("{}: {}; '{} --help' shows more", fullName(command), text, fullName(command));
}

// Digits beyond what a double holds would be taken for infinity.
void refuseOverflow(const CLI::App &command)
{
    for (const CLI::Option *option : command.get_options()) {
        if (!option->get_type_name().starts_with("FLOAT"))
            continue;
        for (const std::string &result : option->results()) {
            errno = 0;
            if (std::isinf(std::strtod(result.c_str(), nullptr)) && errno == ERANGE)
                throw InputError(fmt::format("{}: {}: expected a number up to 1.8e308, got '{}'",
                                             fullName(&command), option->get_name(), shown(result)));
        }
    }
}

// Everything written so far has to be where it belongs before a status says so.
int flushed(int status)
{
    std::cout.flush();
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0 && std::cout.good())
        return status;
    say("vu: standard output cannot be written: {}\n", std::strerror(errno));
    return kFailed;
}

int refused(const std::string &lines, int status, bool json)
{
    say("{}\n", lines);
    if (!json)
        return status;
    nlohmann::ordered_json answer = {{"status", status}, {"mistakes", nlohmann::ordered_json::array()}};
    for (size_t at = 0, end; at < lines.size(); at = end + 1) {
        end = std::min(lines.find('\n', at), lines.size());
        answer["mistakes"].push_back(lines.substr(at, end - at));
    }
    const std::string text =
        answer.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + '\n';
    std::fwrite(text.data(), 1, text.size(), stdout);
    return flushed(status);
}

int withoutMemory(bool json)
{
    std::fwrite(kNoMemory, 1, sizeof kNoMemory - 1, stderr);
    if (json)
        std::fwrite(kNoMemoryJson, 1, sizeof kNoMemoryJson - 1, stdout);
    std::fflush(stdout);
    return kFailed;
}

void addCommands(CLI::App &app, Action &chosen)
{
    app.name("vu");
    app.require_subcommand(1);
    app.set_version_flag("--version", std::string("vu ") + kVersion);
    for (const auto add :
         {addCheck, addRun, addRecord, addSource, addInfo, addVerify, addRecover, addExport, addPlot})
        add(app, chosen);
}

int parseAndRun(int argc, const char *const *argv, bool json)
{
    CLI::App app{"Records measurement channels into one checked data file, and reads such files.\n"
                 "Example: vu run examples/drive/drive.json"};
    Action chosen;
    addCommands(app, chosen);
    try {
        app.parse(argc, argv);
        refuseOverflow(*chosenCommand(app));
        return flushed(chosen());
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() == 0)
            return flushed(app.exit(error)); // help or version, asked for
        return refused(parseMistake(app, error, argc, argv), kUsage, json);
    }
}

} // namespace

int runCommand(int argc, const char *const *argv)
{
    const bool json = wantsJson(argc, argv);
    try {
        return parseAndRun(argc, argv, json);
    } catch (const InputError &error) {
        return refused(error.what(), kUsage, json);
    } catch (const std::bad_alloc &) {
        return withoutMemory(json);
    } catch (const std::exception &error) {
        if (std::ferror(stdout))
            return flushed(kFailed);
        return refused(fmt::format("vu: {}", error.what()), kFailed, json);
    }
}

void endQuietlyWithoutMemory()
{
    std::set_terminate([] {
        try {
            if (const auto current = std::current_exception())
                std::rethrow_exception(current);
        } catch (const std::bad_alloc &) {
            [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, kNoMemory, sizeof kNoMemory - 1);
            _exit(kFailed);
        } catch (...) {
        }
        std::abort();
    });
}

} // namespace vu
