// The real wsbrowser program, started as a user would start it, answering a page over a real
// WebSocket: the rows of its workspace, console code that changes the workspace, and a clean
// exit on SIGTERM.

#include "support/PageClient.hpp"

#include <gtest/gtest.h>

#include <signal.h>
#include <spawn.h>

#include <chrono>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <cstdio>
#include <string>

extern char** environ;

namespace {

namespace json = boost::json;
using wsb_test::PageClient;

// Runs wsbrowser on the example workspace and reads the URL it prints.
class Wsbrowser {
public:
    Wsbrowser() {
        int out[2];
        if (::pipe(out) != 0)
            throw std::runtime_error("pipe");
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
        posix_spawn_file_actions_addclose(&actions, out[0]);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        // Standard input is not a terminal, so there is no prompt; the page's console stays on.
        const char* argv[] = {WSB_WSBROWSER_PATH, "--port", "0", WSB_EXAMPLE_SCRIPT, nullptr};
        const int rc = posix_spawn(&mPid, WSB_WSBROWSER_PATH, &actions, nullptr,
                                   const_cast<char**>(argv), environ);
        posix_spawn_file_actions_destroy(&actions);
        ::close(out[1]);
        if (rc != 0)
            throw std::runtime_error("cannot start wsbrowser");
        mOut = ::fdopen(out[0], "r");
        // The program prints "Workspace browser: http://127.0.0.1:PORT/?token=HEX".
        const std::string prefix = "Workspace browser: http://127.0.0.1:";
        char line[1024];
        while (std::fgets(line, sizeof line, mOut)) {
            const std::string text = line;
            const auto at = text.find(prefix);
            const auto query = text.find("/?token=");
            if (at == std::string::npos || query == std::string::npos)
                continue;
            port = static_cast<std::uint16_t>(std::stoi(text.substr(at + prefix.size())));
            token = text.substr(query + 8);
            token.erase(token.find_last_not_of("\r\n") + 1);
            break;
        }
    }
    // Asks the program to stop as a service manager would; returns its exit status.
    int stop() {
        ::kill(mPid, SIGTERM);
        int status = 0;
        ::waitpid(mPid, &status, 0);
        mPid = 0;
        return status;
    }
    ~Wsbrowser() {
        if (mPid != 0)
            stop();
        if (mOut)
            std::fclose(mOut);
    }

    std::uint16_t port = 0;
    std::string token;

private:
    pid_t mPid = 0;
    std::FILE* mOut = nullptr;
};

// Reads frames until one of `channel` whose message satisfies `want`.
template <class Pred>
json::object awaitMessage(PageClient& page, const std::string& channel, Pred want) {
    for (int frames = 0; frames < 200; ++frames) {
        const json::value frame = page.readJson();
        if (frame.is_null())
            break; // the read failed and said why
        if (!frame.is_object() || frame.at("op") != "message" ||
            frame.at("channel") != json::value(channel))
            continue;
        const json::object& message = frame.at("message").as_object();
        if (want(message))
            return message;
    }
    ADD_FAILURE() << "no matching message on " << channel;
    return {};
}

TEST(Wsbrowser, ServesTheExampleWorkspaceToAWebSocketPage) {
    Wsbrowser program;
    ASSERT_NE(program.port, 0) << "wsbrowser printed no URL";
    const std::string host = "127.0.0.1:" + std::to_string(program.port);

    PageClient page;
    ASSERT_FALSE(page.connect(program.port, "/ws?token=" + program.token, host, "http://" + host));
    const json::value hello = page.readJson();
    const std::string id = json::value_to<std::string>(hello.at("page"));
    const std::string paging = "/WorkspaceBrowser/" + id + "_who";
    const std::string console = "/Console/" + id;
    page.subscribe(paging);
    page.subscribe(console);

    // The address is printed before the script runs: ask until its variables are there.
    const auto isSize = [](const json::object& m) { return m.at("eventType") == 1; };
    json::object size;
    for (int attempt = 0; attempt < 100; ++attempt) {
        page.publish(paging, R"({"eventType":13})");
        size = awaitMessage(page, paging, isSize);
        if (size.at("rowCount").to_number<int>() > 5)
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    const auto rows = size.at("rowCount").to_number<int>();
    EXPECT_GT(rows, 5);
    EXPECT_EQ(size.at("columnCount"), 13);

    // The first row's cells, in column order, once the interpreter has described them.
    page.publish(paging,
                 R"({"eventType":11,"startRow":0,"endRow":0,"startColumn":0,"endColumn":12})");
    const json::object data = awaitMessage(page, paging, [](const json::object& m) {
        if (m.at("eventType") != 2)
            return false;
        const json::value cells = json::parse(json::value_to<std::string>(m.at("partialData")));
        return !json::parse(json::value_to<std::string>(cells.at(0).at(2)))
                    .at("value")
                    .as_string()
                    .empty();
    });
    const json::value cells = json::parse(json::value_to<std::string>(data.at("partialData")));
    EXPECT_EQ(cells.at(0).as_array().size(), 13u);

    // Console code adds a variable; the grid's size follows.
    page.publish(console, R"({"code":"zz_added = 42\nzz_added + 1"})");
    const json::object out = awaitMessage(page, console, [](const json::object&) { return true; });
    EXPECT_EQ(out.at("output"), "43\n");
    EXPECT_EQ(out.at("error"), false);
    page.publish(paging, R"({"eventType":13})");
    EXPECT_EQ(awaitMessage(page, paging,
                           [&](const json::object& m) {
                               return isSize(m) && m.at("rowCount").to_number<int>() != rows;
                           })
                  .at("rowCount"),
              rows + 1);

    const int status = program.stop();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

} // namespace
