#include "dns.h"

#include <gtest/gtest.h>

TEST(Dns, TellsAddressesByTheirForm) {
    const struct {
        const char *text;
        UrlType type;
    } cases[] = {
        {"10.0.0.1", URLTYPE_IPV4}, {"1.2", URLTYPE_IPV4},       {"123", URLTYPE_IPV4},
        {"1.2.3.4.", URLTYPE_IPV4}, {"999.9", URLTYPE_IPV4},     {"1234", URLTYPE_HOST},
        {"1..2", URLTYPE_HOST},     {".1", URLTYPE_HOST},        {"", URLTYPE_HOST},
        {"1.2.3.4a", URLTYPE_HOST}, {"::1", URLTYPE_IPV6},       {"fe80::1%eth0", URLTYPE_IPV6},
        {"x:y:z", URLTYPE_IPV6},    {"a:b", URLTYPE_HOST},       {"fe80::12345", URLTYPE_HOST},
        {"::", URLTYPE_IPV6},       {"a.example", URLTYPE_HOST}, {"1.2 ", URLTYPE_HOST},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(url_type_of(c.text), c.type) << c.text;
    }
}
