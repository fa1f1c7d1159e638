#include "tvhttp.h"

#include "daemon_process.h"
#include "sandbox.h"

#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <sys/socket.h>
#include <utility>
#include <vector>

namespace {

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
    explicit Client(const std::string &bytes = "") { send_all(fd, bytes); }
    void hang_up() { fd = unique_fd(); }
    void send_bytes(const std::string &bytes) const { send_all(fd, bytes); }
    bool ended() {
        char piece[65536];
        const ssize_t count = recv(fd.get(), piece, sizeof piece, MSG_DONTWAIT);
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
    unique_fd fd = scgi_connect();
};

class TvHttp : public testing::Test {
  protected:
    void SetUp() override {
        g_set_prgname("Vandrel");
        handler = tv_http_handler_new(on_request, this);
        ASSERT_NE(handler, nullptr);
    }
    void TearDown() override {
        tv_http_handler_free(handler);
        EXPECT_FALSE(std::filesystem::exists("/run/tvhttp/Vandrel.sock"));
    }
    static void on_request(const gchar *path, const gchar *, const gchar *, GHashTable *given,
                           GOutputStream *output, gpointer data) {
        auto *test = static_cast<TvHttp *>(data);
        test->path = path;
        test->arguments.clear();
        GHashTableIter iterator;
        gpointer name = nullptr;
        gpointer value = nullptr;
        g_hash_table_iter_init(&iterator, given);
        while (g_hash_table_iter_next(&iterator, &name, &value))
            test->arguments[static_cast<char *>(name)] = static_cast<char *>(value);
        test->answer(output);
    }
    static bool write(GOutputStream *output, const std::string &text) {
        return g_output_stream_write_all(output, text.data(), text.size(), nullptr, nullptr,
                                         nullptr);
    }
    TVHttpHandler *handler = nullptr;
    std::string path; // of the last request, as its arguments
    std::map<std::string, std::string> arguments;
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
        EXPECT_EQ(path, row.path);
        EXPECT_EQ(arguments, row.arguments) << row.path;
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
