#include "event.h"
#include "glib_ptr.h"
#include "log_capture.h"
#include "sandbox.h"
#include "system_bus.h"

#include <gtest/gtest.h>
#include <map>
#include <sys/wait.h>

namespace {

using topic = std::map<std::string, std::string>;

// A second program on the bus: everything that it sees of the event service.
class bus_listener {
  public:
    bus_listener() {
        constexpr auto flags =
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION);
        const gchar_ptr address(
            g_dbus_address_get_for_bus_sync(G_BUS_TYPE_SYSTEM, nullptr, nullptr));
        connection_.reset(g_dbus_connection_new_for_address_sync(address.get(), flags, nullptr,
                                                                 nullptr, nullptr));
        subscription_ = g_dbus_connection_signal_subscribe(
            connection_.get(), nullptr, "com.tarvo.Event1", nullptr, nullptr, nullptr,
            G_DBUS_SIGNAL_FLAGS_NONE, take_signal, this, nullptr);
    }
    ~bus_listener() { g_dbus_connection_signal_unsubscribe(connection_.get(), subscription_); }
    bus_listener(const bus_listener &) = delete;
    bus_listener &operator=(const bus_listener &) = delete;

    std::vector<topic> sent;
    std::vector<std::string> nice_names; // of topic2, one for each declaration seen
    std::vector<guint> undeclared;

  private:
    static void take_signal(GDBusConnection *, const gchar *, const gchar *, const gchar *,
                            const gchar *signal, GVariant *parameters, gpointer data) {
        auto *self = static_cast<bus_listener *>(data);
        const std::string name = signal;
        if (name == "Event") {
            self->sent.push_back(dictionary(parameters, 0));
        } else if (name == "Declared") {
            self->nice_names.push_back(dictionary(parameters, 2)["tnstarvo:topic2"]);
        } else {
            guint id = 0;
            g_variant_get(parameters, "(u)", &id);
            self->undeclared.push_back(id);
        }
    }

    static topic dictionary(GVariant *parameters, gsize index) {
        topic keys;
        GVariant *child = g_variant_get_child_value(parameters, index);
        GVariantIter iterator;
        g_variant_iter_init(&iterator, child);
        const gchar *key = nullptr;
        const gchar *value = nullptr;
        while (g_variant_iter_next(&iterator, "{&s&s}", &key, &value)) {
            keys[key] = value;
        }
        g_variant_unref(child);
        return keys;
    }

    gobject_ptr<GDBusConnection> connection_;
    guint subscription_ = 0;
};

topic topic_named(const std::string &name) {
    return {{"tnstarvo:topic0", "VelaPlatform"},
            {"tnstarvo:topic1", "Vandrel"},
            {"tnstarvo:topic2", name}};
}

int callbacks = 0;
guint called_subscription = 0;

void count_callback(guint subscription, TVEvent *event, gpointer data) {
    tv_event_free(event);
    ++callbacks;
    called_subscription = subscription;
    EXPECT_EQ(data, &callbacks);
}

} // namespace

TEST(Event, OthersSeeWhatIsDeclaredSentAndTakenBack) {
    const system_bus bus;
    bus_listener listener;
    log_capture log;
    event_init();

    const nfd_event_ids ids = declare_event_nfd("192.168.0.90 eth0", 0);
    EXPECT_NE(ids.ping_ok, 0U);
    EXPECT_NE(ids.ping_not_ok, 0U);
    const std::uint32_t trigger = declare_event_systemlogs(7, "a trigger with blanks");
    EXPECT_NE(trigger, 0U);
    send_event_nfd(ids.ping_ok);
    send_event_nfd(ids.ping_not_ok);
    send_event_systemlogs(trigger);
    ASSERT_TRUE(run_until([&] { return listener.sent.size() == 3; }));
    EXPECT_EQ(listener.nice_names,
              (std::vector<std::string>{"IP: 192.168.0.90 eth0 PORT: 0 [PING OK]",
                                        "IP: 192.168.0.90 eth0 PORT: 0 [PING NOT OK]",
                                        "System logs: a trigger with blanks"}));
    EXPECT_EQ(listener.sent, (std::vector<topic>{topic_named("nfd_ip192o168o0o90"),
                                                 topic_named("nfd_not_ip192o168o0o90"),
                                                 topic_named("systemlogs_7")}));

    EXPECT_TRUE(log.lines().empty());
    // The same topic again is refused; the other half of a pair stands.
    EXPECT_EQ(declare_event_systemlogs(7, "again"), 0U);
    EXPECT_EQ(declare_event_nfd("192.168.0.90 eth1", 1).ping_ok, 0U);
    EXPECT_EQ(log.texts()[0],
              "ERR (event:#, errno: None) Failed to create the event: [System logs: again]");
    EXPECT_EQ(log.texts()[1],
              "ERR (event:#, errno: None) [nfd] Error declaring event 'nfd_ip192o168o0o90' (IP: "
              "192.168.0.90 eth1 PORT: 1 [PING OK])");

    nfd_event_undeclare({0, ids.ping_not_ok});
    event_undeclare_systemlogs(trigger);
    ASSERT_TRUE(run_until([&] { return listener.undeclared.size() == 2; }));
    EXPECT_EQ(listener.undeclared, (std::vector<guint>{ids.ping_not_ok, trigger}));
    log.clear();
    send_event_nfd(ids.ping_not_ok);
    send_event_systemlogs(trigger);
    EXPECT_EQ(log.texts(),
              std::vector<std::string>{"ERR (event:#, errno: None) [nfd] Error sending event\n"});
}

TEST(Event, OwnEventsComeBackUntilUnsubscribed) {
    const system_bus bus;
    bus_listener listener;
    log_capture log;
    event_init();
    callbacks = 0;
    const std::uint32_t one = declare_event_systemlogs(1, "one");
    const std::uint32_t two = declare_event_systemlogs(2, "two");
    const std::uint32_t subscription =
        subscribe_event_systemlogs(1, "one", count_callback, &callbacks);
    ASSERT_NE(subscription, 0U);
    send_event_systemlogs(two);
    send_event_systemlogs(one);
    ASSERT_TRUE(run_until([] { return callbacks > 0; }));
    EXPECT_EQ(called_subscription, subscription);

    // Queued before the end of the subscription, not delivered after it.
    send_event_systemlogs(one);
    EXPECT_EQ(unsubscribe_event_systemlogs(subscription), 0);
    ASSERT_TRUE(run_until([&] { return listener.sent.size() == 3; }));
    send_event_systemlogs(one);
    ASSERT_TRUE(run_until([&] { return listener.sent.size() == 4; }));
    EXPECT_EQ(callbacks, 1);
    EXPECT_TRUE(log.lines().empty());
    EXPECT_EQ(unsubscribe_event_systemlogs(subscription), -1);
    EXPECT_EQ(log.texts(),
              std::vector<std::string>{"ERR (event:#, errno: None) Failed to unsubscribe for the "
                                       "subscription: [" +
                                       std::to_string(subscription) + "]"});
}

TEST(Event, WithoutAServiceEverythingFailsSoftly) {
    event_init();
    // That the last test's bus is gone is noticed by the main loop.
    int probes = 0;
    ASSERT_TRUE(run_until([&probes] {
        return declare_event(("probe" + std::to_string(++probes)).c_str(), "nice name") == 0;
    }));
    log_capture log;
    EXPECT_FALSE(send_event(1));
    EXPECT_EQ(subscribe_event_systemlogs(1, "one", count_callback, &callbacks), 0U);
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_NE(log.texts()[0].find("Failed to subscribe for the event: [System logs: one]"),
              std::string::npos);
}
