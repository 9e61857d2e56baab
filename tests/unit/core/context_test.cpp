// Context lifecycle and configuration through the C boundary.
#include <atomic>
#include <chrono>
#include <thread>

#include <gtest/gtest.h>

#include "scripted_plugin.hpp"
#include "test_context.hpp"

using namespace std::chrono_literals;
using halyx_test::lastError;
using halyx_test::TestContext;

TEST(Context, CreateReleaseAndDefaultTimeouts)
{
    halyx_context* context = nullptr;
    ASSERT_EQ(halyx_create_context(&context), HALYX_SUCCESS);
    ASSERT_NE(context, nullptr);
    halyx_timeout_configuration_t timeouts{};
    ASSERT_EQ(halyx_get_current_timeout_configuration(context, &timeouts), HALYX_SUCCESS);
    EXPECT_EQ(timeouts.enumerate_ms, 60000u);
    EXPECT_EQ(timeouts.settle_ms, 60u);
    EXPECT_EQ(timeouts.response_ms, 30000u);
    EXPECT_EQ(timeouts.reappear_ms, 30000u);

    const halyx_timeout_configuration_t changed{1000, 5, 6, 7};
    ASSERT_EQ(halyx_set_timeout(context, &changed), HALYX_SUCCESS);
    ASSERT_EQ(halyx_get_current_timeout_configuration(context, &timeouts), HALYX_SUCCESS);
    EXPECT_EQ(timeouts.enumerate_ms, 1000u);
    EXPECT_EQ(timeouts.reappear_ms, 7u);
    EXPECT_EQ(halyx_set_timeout(context, nullptr), HALYX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(halyx_release_context(context), HALYX_SUCCESS);

    // Contexts are independent of one another.
    halyx_context* a = nullptr;
    halyx_context* b = nullptr;
    ASSERT_EQ(halyx_create_context(&a), HALYX_SUCCESS);
    ASSERT_EQ(halyx_create_context(&b), HALYX_SUCCESS);
    EXPECT_NE(a->number, b->number);
    halyx_set_configuration(a, "[]");
    EXPECT_EQ(lastError(b).code, 0u);
    EXPECT_EQ(halyx_release_context(b), HALYX_SUCCESS);
    EXPECT_EQ(halyx_release_context(a), HALYX_SUCCESS);
}

TEST(Context, ConfigurationErrors)
{
    TestContext context;
    EXPECT_EQ(halyx_set_configuration(context, "[]"), HALYX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(lastError(context).message, "Configuration must be a JSON object");
    EXPECT_EQ(halyx_set_configuration(context, "{\"device_lister\": "), HALYX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(lastError(context).message, "Unable to deserialize configuration");
    EXPECT_EQ(halyx_set_configuration(context, nullptr), HALYX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(lastError(context).message, "Unable to deserialize configuration");
    EXPECT_EQ(halyx_set_configuration(context, R"({"a": [{"b": {"": 1}}]})"), HALYX_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(lastError(context).message, "Empty json string key is not supported");
    EXPECT_EQ(halyx_set_configuration(context, R"({"anything": {"nested": [1, 2]}})"), HALYX_SUCCESS);
}

TEST(Context, ConfigurationReachesTheNamedPluginOnly)
{
    std::vector<std::string> received_a;
    std::vector<std::string> received_b;
    halyx_test::PluginScript a;
    a.name = "a";
    a.initParameters = [&](const std::string& text) { received_a.push_back(text); };
    halyx_test::PluginScript b;
    b.name = "b";
    b.initParameters = [&](const std::string& text) { received_b.push_back(text); };
    TestContext context({halyx_test::factory(a), halyx_test::factory(b)});

    ASSERT_EQ(halyx_set_configuration(context, R"({"device_lister": [{"name": "a", "init_parameters": {"BAUD": 115200}},
                                                 {"name": "nobody", "init_parameters": 1}]})"),
              HALYX_SUCCESS);
    ASSERT_EQ(received_a.size(), 1u);
    EXPECT_EQ(nlohmann::json::parse(received_a[0]), nlohmann::json({{"BAUD", 115200}}));
    EXPECT_TRUE(received_b.empty());

    // A "device_lister" that is not an array is the JSON library's type error.
    EXPECT_EQ(halyx_set_configuration(context, R"({"device_lister": {"name": "a"}})"), HALYX_ERR_GENERAL);
    EXPECT_NE(lastError(context).message.find("type must be array"), std::string::npos) << lastError(context).message;
}

TEST(Context, PluginsAndTraitsAreWhatIsRegistered)
{
    halyx_test::PluginScript a;
    a.name = "first";
    a.traits = {"jlink", "modem"};
    halyx_test::PluginScript b;
    b.name = "second";
    b.traits = {"modem", "mcuBoot"};
    TestContext context({halyx_test::factory(a), halyx_test::factory(b)});

    std::string text;
    auto keep = [](void* user, const char* json) { *static_cast<std::string*>(user) = json; };
    ASSERT_EQ(halyx_available_plugins(context, keep, &text), HALYX_SUCCESS);
    EXPECT_EQ(text, R"(["first","second"])");
    ASSERT_EQ(halyx_available_traits(context, keep, &text), HALYX_SUCCESS);
    EXPECT_EQ(text, R"(["jlink","modem","mcuBoot"])");
    EXPECT_EQ(halyx_available_traits(context, nullptr, nullptr), HALYX_ERR_INVALID_ARGUMENT);
}

TEST(Context, ShutdownCallbackRunsOnRelease)
{
    static std::atomic<halyx_context*> seen{nullptr};
    TestContext context;
    halyx_context* raw = context;
    ASSERT_EQ(halyx_register_shutdown_event(context, [](halyx_context* c) { seen = c; }), HALYX_SUCCESS);
    ASSERT_TRUE(context.release());
    EXPECT_EQ(seen.load(), raw);
}

TEST(Context, ReleaseRefusedWhileEnumerating)
{
    TestContext context;
    const halyx_timeout_configuration_t quick{50, 60, 30000, 30000};
    halyx_set_timeout(context, &quick);
    context.lister().hold();
    halyx_device_list_t* list = nullptr;
    ASSERT_EQ(halyx_enumerate(context, &list), HALYX_ERR_TIMEOUT);

    EXPECT_EQ(halyx_release_context(context), HALYX_ERR_TIMEOUT);
    EXPECT_EQ(lastError(context).message, "Unable to shut down. Enumeration is still running.");
    // Still usable, and released once the enumeration is over.
    context.lister().release();
    for (int i = 0; i < 200 && halyx_enumerate(context, &list) == HALYX_ERR_TIMEOUT; ++i) {
        std::this_thread::sleep_for(5ms);
    }
    ASSERT_NE(list, nullptr);
    EXPECT_EQ(halyx_free_device_list(context, list), HALYX_SUCCESS);
    EXPECT_TRUE(context.release());
}
