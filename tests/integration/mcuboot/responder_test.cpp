#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>

#include "program_fixture.hpp"

using namespace halyx_test;
using nlohmann::json;

// A responder written apart from this library (Python, its own codecs, CRC
// checked) takes a whole upload and finds nothing wrong with it.
TEST(McubootIndependentResponder, AcceptsAFullUpload)
{
    const auto result_path = tempPath("responder-result.json");
    std::remove(result_path.c_str());
    const std::string command =
        std::string("/usr/bin/python3 ") + HALYX_TEST_SOURCE_DIR + "/smp_responder.py " + result_path;
    FILE* responder = ::popen(command.c_str(), "r");
    ASSERT_NE(nullptr, responder);
    char port[256] = {};
    ASSERT_NE(nullptr, std::fgets(port, sizeof port, responder));
    std::string port_name(port);
    port_name.erase(port_name.find_last_not_of("\r\n") + 1);

    const std::string serial = uniqueSerial("RESPONDER-");
    const auto bin = tempPath("responder.bin");
    const auto made = makeImage("image", bin, {{"body", 150000}, {"seed", 11}});
    {
        ProgramHarness harness({{serial, "MCUBOOT", "1234", nullptr, {}, port_name}}, 3000);
        const auto outcome = harness.program(harness.idOf(serial), bin, HALYX_FW_FORMAT_BINARY);
        EXPECT_EQ(HALYX_SUCCESS, outcome.code) << outcome.message;
    }
    EXPECT_EQ(0, ::pclose(responder));

    std::ifstream file(result_path);
    ASSERT_TRUE(file.good());
    const auto verdict = json::parse(file);
    EXPECT_EQ(json::array(), verdict.at("violations"));
    EXPECT_EQ(0, verdict.at("crc_errors"));
    EXPECT_EQ(made.at("bytes"), verdict.at("image"));
}
