// The collector's command line: every option, both spellings of a value, and the refusals.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "options.h"

namespace {

using qvcollector::Options;
using qvcollector::ParseOptions;

TEST(CollectorOptions, ValuesAreTakenAndBadOnesRefused) {
    const struct {
        std::vector<std::string> args;
        const char *error;  // nullptr: accepted
        Options expected;
    } cases[] = {
        {{}, nullptr, Options{}},
        {{"--bind", "127.0.0.2", "--base-port", "7000", "--no-ack", "--drop-acks", "3", "--count", "5", "--stats"},
         nullptr, Options{"127.0.0.2", 7000, true, 3, 5, true, false}},
        {{"--base-port=65531", "--count=1", "--drop-acks=0"}, nullptr, Options{"127.0.0.1", 65531, false, 0, 1, false, false}},
        {{"--help"}, nullptr, Options{"127.0.0.1", 6010, false, 0, 0, false, true}},
        {{"-h"}, nullptr, Options{"127.0.0.1", 6010, false, 0, 0, false, true}},
        {{"--count", "0"}, "--count wants a number from 1", {}},
        {{"--count"}, "--count needs a value", {}},
        {{"--drop-acks", "x"}, "--drop-acks wants a number", {}},
        {{"--drop-acks", "-1"}, "--drop-acks wants a number", {}},
        {{"--drop-acks", "2x"}, "--drop-acks wants a number", {}},
        {{"--base-port", "65532"}, "--base-port wants a number from 1 to 65531", {}},
        {{"--base-port", "0"}, "--base-port wants a number from 1 to 65531", {}},
        {{"--bind", "1.2.3"}, "--bind wants an IPv4 address", {}},
        {{"--bind", "localhost"}, "--bind wants an IPv4 address", {}},
        {{"--stats=1"}, "--stats takes no value", {}},
        {{"--verbose"}, "unknown option '--verbose'", {}},
        {{"6010"}, "unknown option '6010'", {}},
    };
    for (const auto &c : cases) {
        std::string joined;
        for (const std::string &a : c.args) joined += a + " ";
        SCOPED_TRACE(joined);
        Options got;
        const auto err = ParseOptions(c.args, got);
        if (c.error != nullptr) {
            ASSERT_TRUE(err.has_value());
            EXPECT_NE(err->find(c.error), std::string::npos) << *err;
            continue;
        }
        ASSERT_FALSE(err.has_value()) << *err;
        EXPECT_EQ(got.bind, c.expected.bind);
        EXPECT_EQ(got.basePort, c.expected.basePort);
        EXPECT_EQ(got.noAck, c.expected.noAck);
        EXPECT_EQ(got.dropAcks, c.expected.dropAcks);
        EXPECT_EQ(got.count, c.expected.count);
        EXPECT_EQ(got.stats, c.expected.stats);
        EXPECT_EQ(got.help, c.expected.help);
    }
}

}  // namespace
