#include "tvhttp.h"

#include "sandbox.h"

#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <memory>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr const char *socket_path = "/run/tvhttp/tvhttp_test.sock";

using Fields = std::vector<std::pair<std::string, std::string>>;

std::string scgi(const Fields &fields) {
    std::string head("CONTENT_LENGTH\0000\0SCGI\0001\0", 24);
    for (const auto &[name, value] : fields)
        head += name + '\0' + value + '\0';
    return std::to_string(head.size()) + ":" + head + ",";
}

std::string get(const std::string &query) {
    return scgi({{"QUERY_STRING", query}});
}

class Client {
  public:
    explicit Client(const std::string &bytes = "") {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::string(socket_path).copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
        send_bytes(bytes);
    }
    Client(const Client &) = delete;
    Client &operator=(const Client &) = delete;
    ~Client() { hang_up(); }
    void hang_up() {
        if (fd >= 0)
            close(std::exchange(fd, -1));
    }
    void send_bytes(const std::string &bytes) {
        EXPECT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), bytes.size());
    }
    bool ended() {
        char piece[65536];
        const ssize_t count = recv(fd, piece, sizeof piece, MSG_DONTWAIT);
        if (count > 0)
            received.append(piece, static_cast<size_t>(count));
        reset = count < 0 && errno == ECONNRESET;
        return count == 0 || reset;
    }
    std::string reply() {
        EXPECT_TRUE(run_until([this] { return ended(); }));
        return received;
    }
    std::string received;
    bool reset = false; // the connection ended with bytes of ours unread

  private:
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

struct Seen {
    std::string path, method, query;
    std::map<std::string, std::string> arguments;
};

class TvHttp : public testing::Test {
  protected:
    void SetUp() override {
        g_set_prgname("tvhttp_test");
        handler = tv_http_handler_new(on_request, this);
        ASSERT_NE(handler, nullptr);
    }
    void TearDown() override {
        tv_http_handler_free(handler);
        EXPECT_FALSE(std::filesystem::exists(socket_path));
    }
    static void on_request(const gchar *path, const gchar *method, const gchar *query,
                           GHashTable *arguments, GOutputStream *output, gpointer data) {
        auto *test = static_cast<TvHttp *>(data);
        Seen request{path, method, query, {}};
        GHashTableIter iterator;
        gpointer name = nullptr;
        gpointer value = nullptr;
        g_hash_table_iter_init(&iterator, arguments);
        while (g_hash_table_iter_next(&iterator, &name, &value))
            request.arguments[static_cast<char *>(name)] = static_cast<char *>(value);
        test->seen.push_back(request);
        test->answer(output);
    }
    static bool write(GOutputStream *output, const std::string &text) {
        return g_output_stream_write_all(output, text.data(), text.size(), nullptr, nullptr,
                                         nullptr);
    }
    TVHttpHandler *handler = nullptr;
    std::vector<Seen> seen;
    std::function<void(GOutputStream *)> answer = [](GOutputStream *output) {
        write(output, "Status: 200 OK\r\n\r\nhello");
        g_object_unref(output);
    };
};

TEST_F(TvHttp, HandsOverPathAndArguments) {
    const struct {
        Fields fields;
        std::string path;
        std::map<std::string, std::string> arguments;
    } cases[] = {
        {{{"REQUEST_URI", "/local/X/a.cgi"}}, "/local/X/a.cgi", {}},
        {{{"REQUEST_URI", "/local/%58/a%2ecgi?a=b"}, {"QUERY_STRING", "a=b"}},
         "/local/X/a.cgi",
         {{"a", "b"}}},
        {{{"REQUEST_URI", "/a.cgi%00.txt"}}, "/a.cgi%00.txt", {}},
        {{{"SCRIPT_NAME", "/local/X"}, {"PATH_INFO", "/a.cgi"}}, "/local/X/a.cgi", {}},
        {{{"QUERY_STRING", "a=1&b=x+y%20%26%3d&a=2&c&d=e=f&=g&&"}},
         "",
         {{"a", "2"}, {"b", "x+y &="}, {"c", ""}, {"d", "e=f"}}},
        {{{"QUERY_STRING", "bad=%4&worse=%zz&last=%&%6E%61me=%ff%C3%a5"}},
         "",
         {{"bad", "%4"}, {"worse", "%zz"}, {"last", "%"}, {"name", "\xff\xc3\xa5"}}},
        {{{"QUERY_STRING", "a=1&a=%00&b%00=2&c=x%00y"}}, "", {{"a", "1"}}},
    };
    for (const auto &row : cases) {
        EXPECT_EQ(Client(scgi(row.fields)).reply(), "Status: 200 OK\r\n\r\nhello");
        ASSERT_FALSE(seen.empty());
        EXPECT_EQ(seen.back().path, row.path);
        EXPECT_EQ(seen.back().arguments, row.arguments) << row.path;
    }
}

TEST_F(TvHttp, RepliesStreamUntilTheLastReferenceGoes) {
    GOutputStream *kept = nullptr;
    answer = [&](GOutputStream *output) {
        kept = output;
        write(output, "first");
    };
    Client client(get("a=1"));
    EXPECT_TRUE(run_until([&] { return !client.ended() && client.received == "first"; }));
    EXPECT_TRUE(write(kept, " second"));
    g_object_unref(kept);
    EXPECT_EQ(client.reply(), "first second");
    EXPECT_FALSE(client.reset);

    bool written = true;
    Client gone;
    answer = [&](GOutputStream *output) {
        gone.hang_up();
        written = write(output, "too late");
        g_object_unref(output);
    };
    gone.send_bytes(get("a=1"));
    EXPECT_TRUE(run_until([&] { return !written; }));
}

TEST_F(TvHttp, OneRequestAtATimeEvenWhenTheCallbackRunsTheLoop) {
    int depth = 0;
    Client first;
    Client second(get("a=2"));
    answer = [&](GOutputStream *output) {
        EXPECT_EQ(depth++, 0);
        for (int i = 0; i < 100; i++)
            g_main_context_iteration(nullptr, FALSE);
        depth--;
        write(output, "done");
        g_object_unref(output);
    };
    first.send_bytes(get("a=1"));
    EXPECT_EQ(first.reply(), "done");
    EXPECT_EQ(second.reply(), "done");
}

} // namespace
