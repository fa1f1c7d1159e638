#include "tvevent.h"

#include "sandbox.h"
#include "system_bus.h"

#include <gio/gio.h>
#include <gtest/gtest.h>
#include <optional>
#include <string>
#include <vector>

namespace {

// Where the library looks for the system bus.
constexpr const char *address = "unix:path=/run/dbus/system_bus_socket";
std::optional<system_bus> bus;

GDBusConnection *connect_program() {
    constexpr auto flags =
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
    return g_dbus_connection_new_for_address_sync(address, flags, nullptr, nullptr, nullptr);
}

void start_bus() {
    bus.emplace();
    GDBusConnection *probe = nullptr;
    ASSERT_TRUE(run_until([&] { return (probe = connect_program()) != nullptr; }));
    g_object_unref(probe);
}

TVEventKeyValueSet *topic(const char *name, const char *nice_name = nullptr) {
    TVEventKeyValueSet *set = tv_event_key_value_set_new();
    EXPECT_TRUE(tv_event_key_value_set_add_key_values(
        set, nullptr, "topic0", "tnstarvo", "VelaPlatform", TV_EVENT_VALUE_TYPE_STRING, "topic1",
        "tnstarvo", "Vandrel", TV_EVENT_VALUE_TYPE_STRING, "topic2", "tnstarvo", name,
        TV_EVENT_VALUE_TYPE_STRING, TV_EVENT_KEYS_END));
    EXPECT_TRUE(tv_event_key_value_set_add_nice_names(set, nullptr, "topic2", "tnstarvo", nullptr,
                                                      nice_name, TV_EVENT_KEYS_END));
    return set;
}

guint declare(TVEventHandler *handler, const char *name, const char *nice_name = nullptr) {
    TVEventKeyValueSet *set = topic(name, nice_name);
    guint id = 77;
    GError *error = nullptr;
    const bool done = tv_event_handler_declare(handler, set, TRUE, &id, nullptr, nullptr, &error);
    EXPECT_EQ(done, error == nullptr);
    EXPECT_EQ(done, id != 0);
    g_clear_error(&error);
    tv_event_key_value_set_free(set);
    return id;
}

bool send(TVEventHandler *handler, guint id) {
    TVEvent *event = tv_event_new(nullptr, nullptr);
    GError *error = nullptr;
    const bool sent = tv_event_handler_send_event(handler, id, event, &error);
    EXPECT_EQ(sent, error == nullptr);
    g_clear_error(&error);
    tv_event_free(event);
    return sent;
}

struct Counter {
    TVEventHandler *handler = nullptr;
    int events = 0;
    bool once = false;
};

void count(guint subscription, TVEvent *event, gpointer data) {
    auto *counter = static_cast<Counter *>(data);
    EXPECT_NE(event, nullptr);
    tv_event_free(event);
    counter->events++;
    if (counter->once) {
        EXPECT_TRUE(tv_event_handler_unsubscribe(counter->handler, subscription, nullptr));
    }
}

guint subscribe(TVEventHandler *handler, TVEventKeyValueSet *set, Counter &counter) {
    counter.handler = handler;
    guint id = 0;
    EXPECT_TRUE(tv_event_handler_subscribe(handler, set, &id, count, &counter, nullptr));
    tv_event_key_value_set_free(set);
    return id;
}

// Another program on the bus, and what it has seen of the event service.
struct Program {
    GDBusConnection *connection = connect_program();
    std::vector<std::string> signals;
    guint subscription;

    Program() {
        subscription = g_dbus_connection_signal_subscribe(
            connection, nullptr, "com.tarvo.Event1", nullptr, "/com/tarvo/Event1", nullptr,
            G_DBUS_SIGNAL_FLAGS_NONE,
            [](GDBusConnection *, const gchar *, const gchar *, const gchar *, const gchar *name,
               GVariant *body, gpointer data) {
                gchar *text = g_variant_print(body, FALSE);
                static_cast<Program *>(data)->signals.push_back(std::string(name) + text);
                g_free(text);
            },
            this, nullptr);
        // Answered after the match rule is in force.
        GVariant *reply = g_dbus_connection_call_sync(
            connection, "org.freedesktop.DBus", "/", "org.freedesktop.DBus", "GetId", nullptr,
            nullptr, G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr);
        g_variant_unref(reply);
    }
    Program(const Program &) = delete;
    Program &operator=(const Program &) = delete;
    ~Program() {
        g_dbus_connection_signal_unsubscribe(connection, subscription);
        g_dbus_connection_close_sync(connection, nullptr, nullptr);
        g_object_unref(connection);
    }
    void emit(const char *body) const {
        GVariant *parsed = g_variant_parse(nullptr, body, nullptr, nullptr, nullptr);
        EXPECT_TRUE(g_dbus_connection_emit_signal(connection, nullptr, "/com/tarvo/Event1",
                                                  "com.tarvo.Event1", "Event", parsed, nullptr));
        g_dbus_connection_flush_sync(connection, nullptr, nullptr);
    }
    bool saw(const std::string &beginning) const {
        for (const std::string &signal : signals) {
            if (signal.starts_with(beginning))
                return true;
        }
        return false;
    }
};

class TvEvent : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        EXPECT_EQ(tv_event_handler_new(), nullptr); // no bus yet
        start_bus();
    }
    static void TearDownTestSuite() { bus.reset(); }
    void SetUp() override {
        handler = tv_event_handler_new();
        ASSERT_NE(handler, nullptr);
    }
    TVEventHandler *handler = nullptr;
};

const std::string topic_text = "{'tnstarvo:topic0': 'VelaPlatform', 'tnstarvo:topic1': 'Vandrel', "
                               "'tnstarvo:topic2': '";

TEST_F(TvEvent, OtherProgramsSeeDeclarationsAndEvents) {
    Program program;
    const guint id = declare(handler, "one", "Nice \xff name");
    EXPECT_EQ(declare(handler, "one"), 0U);
    EXPECT_NE(declare(handler, "two"), 0U);
    EXPECT_TRUE(send(handler, id));
    EXPECT_FALSE(send(handler, 4711));
    EXPECT_FALSE(tv_event_handler_undeclare(handler, 4711, nullptr));
    EXPECT_TRUE(tv_event_handler_undeclare(handler, id, nullptr));
    EXPECT_FALSE(send(handler, id));
    const std::string undeclared = "Undeclared(" + std::to_string(id) + ",)";
    EXPECT_TRUE(run_until([&] { return program.saw(undeclared); }));
    ASSERT_EQ(program.signals.size(), 4U);
    EXPECT_EQ(program.signals[0],
              "Declared(" + std::to_string(id) + ", " + topic_text +
                  "one'}, {'tnstarvo:topic2': 'Nice \xef\xbf\xbd name'}, true)");
    EXPECT_TRUE(program.signals[2].starts_with("Event(" + topic_text + "one'}, {}, "));
    EXPECT_NE(declare(handler, "one"), 0U);
}

TEST_F(TvEvent, SubscriptionsGetEveryEventThatHasAllTheirKeys) {
    const guint id = declare(handler, "match");
    TVEventKeyValueSet *package = tv_event_key_value_set_new();
    tv_event_key_value_set_add_key_values(package, nullptr, "topic1", "tnstarvo", "Vandrel",
                                          TV_EVENT_VALUE_TYPE_STRING, TV_EVENT_KEYS_END);
    TVEventKeyValueSet *bare = tv_event_key_value_set_new();
    tv_event_key_value_set_add_key_values(bare, nullptr, "topic1", nullptr, "Vandrel",
                                          TV_EVENT_VALUE_TYPE_STRING, TV_EVENT_KEYS_END);
    Counter same, part, other, no_name_space, once, ended;
    once.once = true;
    std::vector<guint> ids;
    ids.push_back(subscribe(handler, topic("match"), same));
    ids.push_back(subscribe(handler, package, part));
    ids.push_back(subscribe(handler, topic("other"), other));
    ids.push_back(subscribe(handler, bare, no_name_space));
    subscribe(handler, topic("match"), once);
    const guint ended_id = subscribe(handler, topic("match"), ended);

    send(handler, id);
    EXPECT_TRUE(tv_event_handler_unsubscribe(handler, ended_id, nullptr));
    EXPECT_FALSE(tv_event_handler_unsubscribe(handler, ended_id, nullptr));
    send(handler, id);
    EXPECT_TRUE(run_until([&] { return same.events == 2; }));
    Program program;
    program.emit("('no', 'event')");
    program.emit(("(" + topic_text + "foreign'}, {'a': 'b'}, int64 5)").c_str());
    program.emit(("(" + topic_text + "match'}, @a{ss} {}, int64 5)").c_str());
    EXPECT_TRUE(run_until([&] { return same.events == 3; }));
    EXPECT_EQ(part.events, 4);
    EXPECT_EQ(other.events, 0);
    EXPECT_EQ(no_name_space.events, 0);
    EXPECT_EQ(once.events, 1);
    EXPECT_EQ(ended.events, 0);
    for (const guint subscription : ids)
        EXPECT_TRUE(tv_event_handler_unsubscribe(handler, subscription, nullptr));
}

TEST_F(TvEvent, CopesWithABusThatGoesAndComesBack) {
    const guint id = declare(handler, "restart");
    Counter counter;
    const guint subscription = subscribe(handler, topic("restart"), counter);
    bus.reset();
    EXPECT_TRUE(run_until([&] { return !send(handler, id); }));
    EXPECT_EQ(declare(handler, "while away"), 0U);
    start_bus();
    Program program;
    // Comes back by itself, without a call, and tells again what is declared.
    EXPECT_TRUE(run_until([&] { return program.saw("Declared(" + std::to_string(id) + ", "); }));
    program.emit(("(" + topic_text + "restart'}, @a{ss} {}, int64 5)").c_str());
    EXPECT_TRUE(run_until([&] { return counter.events == 1; }));
    EXPECT_TRUE(send(handler, id));
    EXPECT_TRUE(run_until([&] { return counter.events == 2; }));
    tv_event_handler_unsubscribe(handler, subscription, nullptr);
}

TEST_F(TvEvent, RefusesWhatIsIncomplete) {
    TVEventKeyValueSet *set = tv_event_key_value_set_new();
    EXPECT_FALSE(tv_event_key_value_set_add_key_values(
        set, nullptr, "a", nullptr, nullptr, TV_EVENT_VALUE_TYPE_STRING, TV_EVENT_KEYS_END));
    EXPECT_FALSE(tv_event_key_value_set_add_nice_names(set, nullptr, "a", nullptr, "A", nullptr,
                                                       TV_EVENT_KEYS_END));
    guint id = 77;
    EXPECT_FALSE(tv_event_handler_declare(handler, set, TRUE, &id, nullptr, nullptr, nullptr));
    EXPECT_EQ(id, 0U);
    EXPECT_EQ(declare(nullptr, "no handler"), 0U);
    tv_event_key_value_set_free(set);
    tv_event_key_value_set_free(nullptr);
    tv_event_free(nullptr);

    guint completed = 0;
    set = topic("completion");
    tv_event_handler_declare(
        handler, set, TRUE, &id,
        [](guint declaration, gpointer data) { *static_cast<guint *>(data) = declaration; },
        &completed, nullptr);
    EXPECT_TRUE(run_until([&] { return completed == id; }));
    tv_event_key_value_set_free(set);
}

} // namespace
