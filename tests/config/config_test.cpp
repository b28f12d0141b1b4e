#include "kp/config/config.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <string>

#include "config/sample.h"
#include "kp/config/config_admin.h"

namespace {

using kp::test::kSample;
using kp::test::Loaded;

TEST(ConfigTest, AsManyRangesAsAreUsedCountWithTheirBounds) {
    KP_Config config;
    std::mt19937 random(20240229);
    for (KP_Config::IPRange& range : config.ipRanges) {
        range.min = static_cast<std::uint32_t>(random());
        range.max = range.min + std::min<std::uint32_t>(random() % 3, ~range.min);
    }
    config.ipRanges[7] = {0x7FFFFFFF, 0x80000000};
    config.ipRanges[8] = {0xFFFFFFFF, 0xFFFFFFFF};
    for (config.numOfIPRanges = 0; config.numOfIPRanges <= 64; ++config.numOfIPRanges) {
        const auto* end = config.ipRanges + config.numOfIPRanges;
        for (const KP_Config::IPRange& near : config.ipRanges) {
            for (const std::uint32_t address : {near.min - 1, near.min, near.max, near.max + 1}) {
                EXPECT_EQ(config.isInIPRanges(address) == 1,
                          std::any_of(static_cast<const KP_Config::IPRange*>(config.ipRanges), end,
                                      [=](const KP_Config::IPRange& range) {
                                          return range.min <= address && address <= range.max;
                                      }))
                    << address << " in " << config.numOfIPRanges;
            }
        }
    }
}

TEST(ConfigTest, SourcesAndPasswords) {
    const kp::test::Installation site;
    Loaded<KP_Config> config(site);
    EXPECT_EQ(config.isValidSourceIP(0xC0A8014D), 1);
    EXPECT_EQ(config.isValidSourceIP(0xC0A80201), 0);
    EXPECT_EQ(config.isValidSourceIP(0x01020304), 1);
    config.numOfNets = 0;
    EXPECT_EQ(config.isValidSourceIP(0xC0A8014D), 0);
    config.applyNetAddress = 0;
    EXPECT_EQ(config.isValidSourceIP(5), 1);
    EXPECT_EQ(config.isValidPassword("root", "a b"), 1);
    EXPECT_EQ(config.isValidPassword("Root", "a b"), 0);
    for (const char* wrong : {"A b", "a ", "a b ", ""}) {
        EXPECT_EQ(config.isValidPassword("root", wrong), 0) << wrong;
    }
    EXPECT_EQ(KP_Config().isValidPassword("root", ""), 1);
    EXPECT_EQ(KP_Config().isValidPassword("", ""), 0);
}

TEST(ConfigTest, NamesFitOrAreRefused) {
    KP_Config config;
    EXPECT_EQ(config.setName(std::string(127, 'n').c_str()), 0);
    EXPECT_EQ(config.setName(std::string(128, 'o').c_str()), -1);
    EXPECT_EQ(config.name, std::string(127, 'n'));
    EXPECT_EQ(config.setName(config.name + 120), 0);
    EXPECT_STREQ(config.name, "nnnnnnn");
}

TEST(ConfigTest, CopiesHaveTheirOwnMappings) {
    const kp::test::Installation site;
    Loaded<KP_ConfigAdmin> first(site);
    Loaded<KP_ConfigAdmin> second(site);
    first.ipRanges[63] = {1, 2};
    std::strcpy(first.device, "eth0");
    second = first;
    const auto& same = second;
    second = same;
    Loaded<KP_ConfigAdmin> third(first);
    EXPECT_EQ(first.reset(), 0);
    EXPECT_EQ(first.mimeTypes, nullptr);
    EXPECT_EQ(first.numOfMimeTypes, 0);
    for (KP_ConfigAdmin* copy : {&second, &third}) {
        EXPECT_EQ(copy->save(), 0);
        EXPECT_EQ(site.read("admin/x_prvt.cfg"), kSample);
        EXPECT_EQ(copy->ipRanges[63].max, 2U);
        EXPECT_STREQ(copy->device, "eth0");
        EXPECT_EQ(copy->netAddress[0], 0xC0A80100);
    }
    EXPECT_NE(second.mimeTypes, third.mimeTypes);
    third = first;
    EXPECT_EQ(third.mimeTypes, nullptr);
}

}  // namespace
