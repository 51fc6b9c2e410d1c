// Behaviour of the system-information stand-in.
#include "system_info.h"
#include "system_info_standin.h"

#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <utility>
#include <vector>

extern char** environ;

namespace {

constexpr int kSentinel = 0x5eed;

// Every test starts with no HDRGPU_SYSTEM_INFO_* variable (those of the caller's environment
// are put aside and given back afterwards) and an empty table.
class SystemInfoTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::vector<std::string> names;
        for (char** entry = environ; *entry != nullptr; ++entry) {
            const char* equals = std::strchr(*entry, '=');
            if (std::strncmp(*entry, "HDRGPU_SYSTEM_INFO_", 19) == 0 && equals != nullptr) {
                names.emplace_back(*entry, static_cast<size_t>(equals - *entry));
                outside_.emplace_back(names.back(), equals + 1);
            }
        }
        for (const std::string& name : names) {
            unsetenv(name.c_str());
        }
        system_info_standin_reset();
    }

    void TearDown() override
    {
        for (const std::string& name : envSet_) {
            unsetenv(name.c_str());
        }
        for (const auto& variable : outside_) {
            setenv(variable.first.c_str(), variable.second.c_str(), 1);
        }
        system_info_standin_reset();
    }

    void SetEnv(const std::string& name, const std::string& value)
    {
        ASSERT_EQ(setenv(name.c_str(), value.c_str(), 1), 0);
        envSet_.push_back(name);
    }

    static int Read(int key, int* value)
    {
        *value = kSentinel;
        return system_info_get_value_int(key, value);
    }

    std::vector<std::string> envSet_;
    std::vector<std::pair<std::string, std::string>> outside_;
};

// A NULL value pointer is refused, whether or not the key has a value.
TEST_F(SystemInfoTest, NullValueIsInvalidParameter)
{
    EXPECT_EQ(system_info_get_value_int(1302, nullptr), SYSTEM_INFO_ERROR_INVALID_PARAMETER);
    system_info_standin_set_int(1302, 5);
    EXPECT_EQ(system_info_get_value_int(1302, nullptr), SYSTEM_INFO_ERROR_INVALID_PARAMETER);
}

// The error codes have the platform's values.
TEST_F(SystemInfoTest, ErrorCodesHavePlatformValues)
{
    EXPECT_EQ(SYSTEM_INFO_ERROR_NONE, 0);
    EXPECT_EQ(SYSTEM_INFO_ERROR_INVALID_PARAMETER, -22);
    EXPECT_EQ(SYSTEM_INFO_ERROR_NOT_SUPPORTED, -1073741822);
}

// Keys 1301 and 1302 have no value by default: NOT_SUPPORTED, value untouched.
TEST_F(SystemInfoTest, DefaultKeysAreNotSupported)
{
    int value = 0;
    EXPECT_EQ(Read(1301, &value), SYSTEM_INFO_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(value, kSentinel);
    EXPECT_EQ(Read(1302, &value), SYSTEM_INFO_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(value, kSentinel);
}

// Any integer key, even negative or extreme, has no value by default.
TEST_F(SystemInfoTest, ArbitraryKeysAreNotSupportedByDefault)
{
    int value = 0;
    for (int key : {0, 1, -1, 42, INT_MIN, INT_MAX}) {
        EXPECT_EQ(Read(key, &value), SYSTEM_INFO_ERROR_NOT_SUPPORTED) << key;
    }
}

// A value given with set_int is read back with success.
TEST_F(SystemInfoTest, SetIntIsReadBack)
{
    system_info_standin_set_int(1302, 65);
    int value = 0;
    EXPECT_EQ(Read(1302, &value), SYSTEM_INFO_ERROR_NONE);
    EXPECT_EQ(value, 65);
}

// Values of different keys are independent, and extreme values survive.
TEST_F(SystemInfoTest, KeysAreIndependent)
{
    system_info_standin_set_int(1301, INT_MIN);
    system_info_standin_set_int(1302, INT_MAX);
    int value = 0;
    EXPECT_EQ(Read(1301, &value), SYSTEM_INFO_ERROR_NONE);
    EXPECT_EQ(value, INT_MIN);
    EXPECT_EQ(Read(1302, &value), SYSTEM_INFO_ERROR_NONE);
    EXPECT_EQ(value, INT_MAX);
    EXPECT_EQ(Read(1303, &value), SYSTEM_INFO_ERROR_NOT_SUPPORTED);
}

// A later set_int replaces the earlier value.
TEST_F(SystemInfoTest, SetIntOverwrites)
{
    system_info_standin_set_int(7, 1);
    system_info_standin_set_int(7, 2);
    int value = 0;
    EXPECT_EQ(Read(7, &value), SYSTEM_INFO_ERROR_NONE);
    EXPECT_EQ(value, 2);
}

// set_error makes reads fail with that code and leaves the value untouched.
TEST_F(SystemInfoTest, SetErrorMakesReadsFail)
{
    system_info_standin_set_int(1302, 65);
    system_info_standin_set_error(1302, SYSTEM_INFO_ERROR_IO_ERROR);
    int value = 0;
    EXPECT_EQ(Read(1302, &value), SYSTEM_INFO_ERROR_IO_ERROR);
    EXPECT_EQ(value, kSentinel);
    system_info_standin_set_error(1302, SYSTEM_INFO_ERROR_PERMISSION_DENIED);
    EXPECT_EQ(Read(1302, &value), SYSTEM_INFO_ERROR_PERMISSION_DENIED);
}

// set_int after set_error gives the key a value again.
TEST_F(SystemInfoTest, SetIntReplacesError)
{
    system_info_standin_set_error(1301, SYSTEM_INFO_ERROR_OUT_OF_MEMORY);
    system_info_standin_set_int(1301, 3);
    int value = 0;
    EXPECT_EQ(Read(1301, &value), SYSTEM_INFO_ERROR_NONE);
    EXPECT_EQ(value, 3);
}

// set_error with 0 clears the key: a read never succeeds without a value.
TEST_F(SystemInfoTest, SetErrorZeroClears)
{
    system_info_standin_set_int(1302, 65);
    system_info_standin_set_error(1302, 0);
    int value = 0;
    EXPECT_EQ(Read(1302, &value), SYSTEM_INFO_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(value, kSentinel);
    system_info_standin_set_error(1301, 0);
    EXPECT_EQ(Read(1301, &value), SYSTEM_INFO_ERROR_NOT_SUPPORTED);
}

// clear takes one key's value or error away and leaves other keys alone.
TEST_F(SystemInfoTest, ClearRemovesOneKey)
{
    system_info_standin_set_int(1301, 1);
    system_info_standin_set_error(1302, SYSTEM_INFO_ERROR_IO_ERROR);
    system_info_standin_set_int(1303, 3);
    system_info_standin_clear(1301);
    system_info_standin_clear(1302);
    system_info_standin_clear(9999);  // never set: harmless
    int value = 0;
    EXPECT_EQ(Read(1301, &value), SYSTEM_INFO_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(Read(1302, &value), SYSTEM_INFO_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(Read(1303, &value), SYSTEM_INFO_ERROR_NONE);
    EXPECT_EQ(value, 3);
}

// reset clears every key.
TEST_F(SystemInfoTest, ResetClearsEveryKey)
{
    system_info_standin_set_int(1301, 1);
    system_info_standin_set_error(1302, SYSTEM_INFO_ERROR_IO_ERROR);
    system_info_standin_reset();
    int value = 0;
    EXPECT_EQ(Read(1301, &value), SYSTEM_INFO_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(Read(1302, &value), SYSTEM_INFO_ERROR_NOT_SUPPORTED);
}

// HDRGPU_SYSTEM_INFO_<key>=<int> gives key a value (read on reset).
TEST_F(SystemInfoTest, EnvironmentGivesValues)
{
    SetEnv("HDRGPU_SYSTEM_INFO_1302", "65");
    SetEnv("HDRGPU_SYSTEM_INFO_1301", "-7");
    SetEnv("HDRGPU_SYSTEM_INFO_-5", "2147483647");
    system_info_standin_reset();
    int value = 0;
    EXPECT_EQ(Read(1302, &value), SYSTEM_INFO_ERROR_NONE);
    EXPECT_EQ(value, 65);
    EXPECT_EQ(Read(1301, &value), SYSTEM_INFO_ERROR_NONE);
    EXPECT_EQ(value, -7);
    EXPECT_EQ(Read(-5, &value), SYSTEM_INFO_ERROR_NONE);
    EXPECT_EQ(value, INT_MAX);
}

// The int32 limits themselves are accepted from the environment.
TEST_F(SystemInfoTest, EnvironmentAcceptsInt32Limits)
{
    SetEnv("HDRGPU_SYSTEM_INFO_10", "-2147483648");
    SetEnv("HDRGPU_SYSTEM_INFO_11", "007");
    system_info_standin_reset();
    int value = 0;
    EXPECT_EQ(Read(10, &value), SYSTEM_INFO_ERROR_NONE);
    EXPECT_EQ(value, INT_MIN);
    EXPECT_EQ(Read(11, &value), SYSTEM_INFO_ERROR_NONE);
    EXPECT_EQ(value, 7);
}

// Malformed values are ignored: the key keeps no value, nothing crashes.
TEST_F(SystemInfoTest, EnvironmentIgnoresMalformedValues)
{
    const char* const bad[] = {"",    "abc",         "65x",         " 65",        "65 ",
                               "+65", "0x41",        "2147483648",  "-2147483649", "99999999999999999999",
                               "-",   "6.5",         "1e3",         "--1"};
    int key = 2000;
    for (const char* text : bad) {
        SetEnv("HDRGPU_SYSTEM_INFO_" + std::to_string(key++), text);
    }
    system_info_standin_reset();
    int value = 0;
    key = 2000;
    for (const char* text : bad) {
        EXPECT_EQ(Read(key++, &value), SYSTEM_INFO_ERROR_NOT_SUPPORTED) << '"' << text << '"';
    }
}

// Variables whose key part is not a decimal int32 are ignored.
TEST_F(SystemInfoTest, EnvironmentIgnoresMalformedKeys)
{
    SetEnv("HDRGPU_SYSTEM_INFO_", "1");
    SetEnv("HDRGPU_SYSTEM_INFO_x1302", "1");
    SetEnv("HDRGPU_SYSTEM_INFO_1302x", "1");
    SetEnv("HDRGPU_SYSTEM_INFO_4294968598", "1");  // 1302 + 2^32
    SetEnv("HDRGPU_SYSTEM_INFO_+1302", "1");
    system_info_standin_reset();
    int value = 0;
    EXPECT_EQ(Read(1302, &value), SYSTEM_INFO_ERROR_NOT_SUPPORTED);
    EXPECT_EQ(Read(0, &value), SYSTEM_INFO_ERROR_NOT_SUPPORTED);
}

// Variables with a similar but different prefix are ignored.
TEST_F(SystemInfoTest, EnvironmentNeedsExactPrefix)
{
    SetEnv("HDRGPU_SYSTEM_INFO1302", "1");
    SetEnv("hdrgpu_system_info_1302", "1");
    SetEnv("XHDRGPU_SYSTEM_INFO_1302", "1");
    system_info_standin_reset();
    int value = 0;
    EXPECT_EQ(Read(1302, &value), SYSTEM_INFO_ERROR_NOT_SUPPORTED);
}

// Control calls override values from the environment.
TEST_F(SystemInfoTest, ControlCallsOverrideEnvironment)
{
    SetEnv("HDRGPU_SYSTEM_INFO_1301", "1");
    SetEnv("HDRGPU_SYSTEM_INFO_1302", "2");
    SetEnv("HDRGPU_SYSTEM_INFO_1303", "3");
    system_info_standin_reset();
    system_info_standin_set_int(1301, 10);
    system_info_standin_set_error(1302, SYSTEM_INFO_ERROR_IO_ERROR);
    system_info_standin_clear(1303);
    int value = 0;
    EXPECT_EQ(Read(1301, &value), SYSTEM_INFO_ERROR_NONE);
    EXPECT_EQ(value, 10);
    EXPECT_EQ(Read(1302, &value), SYSTEM_INFO_ERROR_IO_ERROR);
    EXPECT_EQ(Read(1303, &value), SYSTEM_INFO_ERROR_NOT_SUPPORTED);
}

// reset goes back to exactly the environment's values, read anew.
TEST_F(SystemInfoTest, ResetRereadsEnvironment)
{
    SetEnv("HDRGPU_SYSTEM_INFO_1302", "65");
    system_info_standin_reset();
    system_info_standin_set_int(1302, 1);
    system_info_standin_set_int(1301, 1);
    system_info_standin_reset();
    int value = 0;
    EXPECT_EQ(Read(1302, &value), SYSTEM_INFO_ERROR_NONE);
    EXPECT_EQ(value, 65);
    EXPECT_EQ(Read(1301, &value), SYSTEM_INFO_ERROR_NOT_SUPPORTED);

    unsetenv("HDRGPU_SYSTEM_INFO_1302");
    system_info_standin_reset();
    EXPECT_EQ(Read(1302, &value), SYSTEM_INFO_ERROR_NOT_SUPPORTED);
}

// The environment is not re-read by ordinary reads, only at first use and on reset.
TEST_F(SystemInfoTest, EnvironmentIsNotRereadWithoutReset)
{
    int value = 0;
    EXPECT_EQ(Read(1302, &value), SYSTEM_INFO_ERROR_NOT_SUPPORTED);
    SetEnv("HDRGPU_SYSTEM_INFO_1302", "65");
    EXPECT_EQ(Read(1302, &value), SYSTEM_INFO_ERROR_NOT_SUPPORTED);
}

// The environment is read at the very first use, with no reset: checked in a fresh process.
TEST(SystemInfoFirstUseTest, EnvironmentIsReadAtFirstUse)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // the child re-executes: a fresh, unused stand-in
    ASSERT_EQ(setenv("HDRGPU_SYSTEM_INFO_1302", "65", 1), 0);
    ASSERT_EQ(setenv("HDRGPU_SYSTEM_INFO_1301", "bad", 1), 0);
    EXPECT_EXIT(
        {
            int value = 0;
            const bool ok = system_info_get_value_int(1302, &value) == SYSTEM_INFO_ERROR_NONE && value == 65 &&
                            system_info_get_value_int(1301, &value) == SYSTEM_INFO_ERROR_NOT_SUPPORTED;
            std::_Exit(ok ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
    unsetenv("HDRGPU_SYSTEM_INFO_1302");
    unsetenv("HDRGPU_SYSTEM_INFO_1301");
}

// Reads and control calls from many threads at once are safe and consistent.
TEST_F(SystemInfoTest, ConcurrentAccessIsSafe)
{
    constexpr int kThreads = 8;
    constexpr int kRounds = 2000;
    std::atomic<int> bad{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &bad] {
            const int key = 5000 + t;
            for (int i = 0; i < kRounds; ++i) {
                system_info_standin_set_int(key, i);
                int value = -1;
                if (system_info_get_value_int(key, &value) != SYSTEM_INFO_ERROR_NONE || value != i) {
                    ++bad;
                }
                // A shared key changed by everyone: any outcome must be one of the valid ones.
                if (i % 2 == 0) {
                    system_info_standin_set_error(1302, SYSTEM_INFO_ERROR_IO_ERROR);
                } else {
                    system_info_standin_set_int(1302, t);
                }
                const int rc = system_info_get_value_int(1302, &value);
                if (rc != SYSTEM_INFO_ERROR_NONE && rc != SYSTEM_INFO_ERROR_IO_ERROR) {
                    ++bad;
                }
                system_info_standin_clear(key);
            }
        });
    }
    for (std::thread& th : threads) {
        th.join();
    }
    EXPECT_EQ(bad.load(), 0);
}

}  // namespace
