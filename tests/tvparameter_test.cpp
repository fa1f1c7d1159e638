#include "tvparameter.h"

#include "sandbox.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

const std::string store = "/etc/tvparameter/parameters.conf";

// The value, or "(none)" when the library refuses with an error.
std::string get(TVParameter *handle, const char *name) {
    gchar *value = nullptr;
    GError *error = nullptr;
    const bool found = tv_parameter_get(handle, name, &value, &error);
    EXPECT_EQ(found, value != nullptr);
    EXPECT_EQ(found, error == nullptr);
    const std::string text = value ? value : "(none)";
    g_free(value);
    g_clear_error(&error);
    return text;
}

bool set(TVParameter *handle, const char *name, const char *value) {
    GError *error = nullptr;
    const bool done = tv_parameter_set(handle, name, value, TRUE, &error);
    EXPECT_EQ(done, error == nullptr);
    g_clear_error(&error);
    return done;
}

TEST(TvParameter, NewNeedsTheStore) {
    std::filesystem::remove_all("/etc/tvparameter");
    GError *error = nullptr;
    EXPECT_EQ(tv_parameter_new("Vandrel", &error), nullptr);
    EXPECT_NE(error, nullptr);
    g_clear_error(&error);
    EXPECT_EQ(get(nullptr, "root.A"), "(none)");
    EXPECT_FALSE(set(nullptr, "root.A", "1"));
    tv_parameter_free(nullptr);
}

TEST(TvParameter, ReadsAndWrites) {
    write_file(store,
               "root.A=1\nnot a parameter\nroot.AB==x = y \nroot.Empty=\nroot.A=later\nroot.Z=end");
    TVParameter *handle = tv_parameter_new("Vandrel", nullptr);
    ASSERT_NE(handle, nullptr);
    const std::pair<const char *, const char *> expected[] = {
        {"root.A", "1"},    {"root.AB", "=x = y "},      {"root.Empty", ""}, {"root.Z", "end"},
        {"root", "(none)"}, {"root.A=1\nnot", "(none)"}, {"", "(none)"},
    };
    for (const auto &[name, value] : expected)
        EXPECT_EQ(get(handle, name), value) << name;

    std::filesystem::permissions(store, std::filesystem::perms(0640));
    EXPECT_TRUE(set(handle, "root.AB", "new"));
    EXPECT_TRUE(set(handle, "root.New", "a=b"));
    EXPECT_FALSE(set(handle, "root.A=", "x"));
    EXPECT_FALSE(set(handle, "root.A\nroot.B", "x"));
    EXPECT_FALSE(set(handle, "root.A", "x\nroot.B=1"));
    EXPECT_FALSE(set(handle, "root.A", nullptr));
    EXPECT_EQ(read_file(store),
              "root.A=1\nnot a parameter\nroot.AB=new\nroot.Empty=\nroot.A=later\n"
              "root.Z=end\nroot.New=a=b\n");
    EXPECT_EQ(std::filesystem::status(store).permissions(), std::filesystem::perms(0640));
    tv_parameter_free(handle);
}

TEST(TvParameter, ThreadsLoseNoneOfEachOthersWrites) {
    write_file(store, "root.Common=0\n");
    TVParameter *handle = tv_parameter_new("Vandrel", nullptr);
    std::vector<std::thread> threads;
    for (int thread = 0; thread < 4; thread++) {
        threads.emplace_back([handle, thread] {
            for (int i = 0; i < 25; i++) {
                const std::string name =
                    "root.T" + std::to_string(thread) + "." + std::to_string(i);
                EXPECT_TRUE(set(handle, name.c_str(), "written"));
                EXPECT_EQ(get(handle, "root.Common"), "0");
            }
        });
    }
    for (std::thread &thread : threads)
        thread.join();
    for (int thread = 0; thread < 4; thread++) {
        for (int i = 0; i < 25; i++) {
            const std::string name = "root.T" + std::to_string(thread) + "." + std::to_string(i);
            EXPECT_EQ(get(handle, name.c_str()), "written") << name;
        }
    }
    tv_parameter_free(handle);
}

} // namespace
