// One command, one subcommand a job. Results go to standard output, everything else to standard error.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "vu/command.h"

int main(int argc, char **argv)
{
    CLI::App app{"Records measurement channels into one checked data file, and reads such files.\n"
                 "Example: vu run examples/drive/drive.json"};
    app.name("vu");
    app.require_subcommand(1);
    app.set_version_flag("--version", "vu 1.0.0");
    vu::Action chosen;
    for (const auto add : {vu::addCheck, vu::addRun, vu::addRecord, vu::addSource, vu::addInfo, vu::addVerify,
                           vu::addRecover, vu::addExport, vu::addPlot})
        add(app, chosen);
    try {
        app.parse(argc, argv);
        return chosen();
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() == 0)
            return app.exit(error); // help or version, asked for
        std::fprintf(stderr, "vu: %s\n", error.what());
        return vu::kUsage;
    } catch (const vu::InputError &error) {
        std::fprintf(stderr, "%s\n", error.what());
        return vu::kUsage;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "vu: %s\n", error.what());
        return vu::kFailed;
    }
}
