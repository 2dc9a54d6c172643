// What a source hands to the recorder that started it: its account, and a socket that nobody else is served
// on.
#include <gmock/gmock.h>
#include <nlohmann/json.hpp>
#include <sndfile.hh>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/cases.h"
#include "tests/vu/source_process.h"

namespace vu::test {
namespace {

using ::testing::HasSubstr;
using Json = nlohmann::json;

// The lines that a source writes on the descriptor of --account, after it has sent everything it has.
std::vector<Json> accountOf(const std::string &line, int status)
{
    int ends[2];
    EXPECT_EQ(pipe(ends), 0); // no flag closes them when the source starts
    replay(line + " --speed 0 --account " + std::to_string(ends[1]), status);
    close(ends[1]);
    std::string text(1 << 16, '\0');
    text.resize(static_cast<size_t>(std::max<ssize_t>(0, read(ends[0], text.data(), text.size()))));
    close(ends[0]);
    std::vector<Json> lines;
    for (const std::string &one : split(text, '\n'))
        if (!one.empty())
            lines.push_back(Json::parse(one));
    return lines;
}

TEST(SourceAccount, ReadIsSentAndLeftOutByCause)
{
    const TempDir folder;
    for (const Strings &parts : cases("vu/accounts.txt")) {
        writeText(folder.path("log"), parts[1]);
        std::string line = parts[0];
        if (const size_t at = line.find('@'); at < line.size())
            line.replace(at, 1, folder.path("log"));
        const std::vector<Json> lines = accountOf(line, std::stoi(parts[2]));
        ASSERT_GE(lines.size(), 2u) << "one when it listens and one at the end";
        EXPECT_EQ(lines.front()["end"], false);
        EXPECT_EQ(lines.back()["end"], true);
        const Json expected = Json::parse(parts[3]);
        for (const auto &[key, value] : expected.items())
            EXPECT_EQ(lines.back()[key], value) << key;
        std::string notes;
        for (const Json &one : lines)
            notes += one["notes"].dump();
        EXPECT_THAT(notes, HasSubstr(parts.size() > 4 ? parts[4] : "[]"));
    }
}

TEST(SourceAccount, ASoundFileThatIsCutIsALoss)
{
    const TempDir folder;
    const std::string file = folder.path("a.wav");
    const std::vector<short> samples(3000, 7);
    for (const int order : {SF_ENDIAN_LITTLE, SF_ENDIAN_BIG}) {
        SndfileHandle(file, SFM_WRITE, SF_FORMAT_WAV | SF_FORMAT_PCM_16 | order, 2, 8000)
            .writef(samples.data(), 1500);
        const std::string line = "wav " + file + " --data-type sequential_float32";
        EXPECT_EQ(accountOf(line, 0).back()["left_out"], Json::object());
        const std::string whole = readText(file);
        writeText(file, whole.substr(0, whole.size() - 4001));
        const Json account = accountOf(line, 0).back();
        EXPECT_EQ(account["left_out"], Json::parse(R"({"truncated": 1001})"));
        EXPECT_EQ(account["sent"], 499);
    }
}

// A listening socket without a name in the file system, as the recorder makes it.
struct Listening {
    Listening()
    {
        sockaddr_un none{AF_UNIX, {}};
        EXPECT_EQ(bind(socket, reinterpret_cast<sockaddr *>(&none), sizeof none.sun_family), 0);
        EXPECT_EQ(listen(socket, 4), 0);
        EXPECT_EQ(getsockname(socket, reinterpret_cast<sockaddr *>(&name), &size), 0);
    }
    ~Listening() { close(socket); }
    int connected() const
    {
        const int made = ::socket(AF_UNIX, SOCK_STREAM, 0);
        EXPECT_EQ(connect(made, reinterpret_cast<const sockaddr *>(&name), size), 0);
        return made;
    }
    int socket = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un name{};
    socklen_t size = sizeof name;
};

size_t bytesFrom(int socket)
{
    size_t all = 0;
    char bytes[4096];
    for (ssize_t count; (count = recv(socket, bytes, sizeof bytes, 0)) > 0;)
        all += static_cast<size_t>(count);
    close(socket);
    return all;
}

TEST(InheritedSocket, ServesNobodyButTheProcessThatHandedItDown)
{
    const Listening listening;
    RunningVu source(words("source sim --data-type sequential_float32 --duration 1 --speed 0 --listen fd:" +
                           std::to_string(listening.socket)));
    const pid_t stranger = fork(); // the first to come
    if (stranger == 0)
        _exit(bytesFrom(listening.connected()) == 0 ? 0 : 1);
    int status = -1;
    waitpid(stranger, &status, 0);
    EXPECT_EQ(status, 0) << "the stranger got data";
    EXPECT_EQ(bytesFrom(listening.connected()), 2u + 100 * (12 + 40));
    EXPECT_EQ(source.wait(), 0) << source.err();
}

} // namespace
} // namespace vu::test
