// CPU placement from the platform's configuration.

#include "platform_config_use.h"

#include "platform/cpu_placement.h"

#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <unistd.h>
#include <utility>

namespace
{

/// The configuration is read at the first question, hence before any test.
class Configuration : public testing::Environment
{
public:
    void SetUp() override
    {
        // 31 characters fill the record's name but for the NUL.
        use_platform_config("[syslog]\ntarget = \"stderr\"\n"
                            "[cpu.FIRST]\ncores = [0]\n"
                            "[cpu.LAST]\ncores = [1022, 1023]\n"
                            "[cpu.BOTH]\ncores = [0, 1023]\n"
                            "[cpu.SFLOW]\ncores = [1, 3, 1]\n"
                            "[cpu.abcdefghijklmnopqrstuvwxyz01234]\ncores = [5]\n");
    }
};

// googletest takes ownership.
const testing::Environment *const configuration =
    testing::AddGlobalTestEnvironment(std::make_unique<Configuration>().release());

cores_affinity_req_t request_of(const char *name)
{
    cores_affinity_req_t request{};
    std::strncpy(request.process_name, name, CORES_AFFINITY_NAME_LEN);
    return request;
}

} // namespace

TEST(get_cores_affinity, fills_in_the_cores_of_the_process)
{
    ASSERT_NE(nullptr, configuration);
    cores_affinity_req_t request = request_of("SFLOW");
    CPU_SET(7, &request.cpus);
    ASSERT_EQ(0, get_cores_affinity(&request));
    EXPECT_EQ(2, CPU_COUNT(&request.cpus));
    EXPECT_TRUE(CPU_ISSET(1, &request.cpus));
    EXPECT_TRUE(CPU_ISSET(3, &request.cpus));
}

TEST(get_cores_affinity, a_process_without_an_assignment_gets_minus_one_and_keeps_its_set)
{
    for (const char *name : {"OTHER", "", "sflow", "SFLOW2", "SFLO"}) {
        cores_affinity_req_t request = request_of(name);
        CPU_SET(7, &request.cpus);
        EXPECT_EQ(-1, get_cores_affinity(&request)) << name;
        EXPECT_EQ(1, CPU_COUNT(&request.cpus)) << name;
        EXPECT_TRUE(CPU_ISSET(7, &request.cpus)) << name;
    }
    EXPECT_EQ(-1, get_cores_affinity(nullptr));
}

TEST(get_cores_affinity, a_name_that_fills_the_record_is_read_within_its_bounds)
{
    cores_affinity_req_t request = request_of("abcdefghijklmnopqrstuvwxyz01234");
    ASSERT_EQ('\0', request.process_name[CORES_AFFINITY_NAME_LEN - 1]);
    EXPECT_EQ(0, get_cores_affinity(&request));
    std::memset(request.process_name, 'x', sizeof(request.process_name));
    EXPECT_EQ(-1, get_cores_affinity(&request));
}

TEST(get_cores_affinity, cores_that_the_machine_does_not_have_are_logged)
{
    if (::sysconf(_SC_NPROCESSORS_CONF) > 1022)
        GTEST_SKIP() << "this machine has all the cores that can be named";
    const std::pair<const char *, const char *> rows[] = {
        {"FIRST", ""},
        {"LAST",
         "%PLATFORM-4-CPU: platform.toml assigns LAST cores that this machine does not have: 1022 1023; the "
         "process runs on any core\n"},
        {"BOTH",
         "%PLATFORM-4-CPU: platform.toml assigns BOTH cores that this machine does not have: 1023; only the "
         "others count\n"},
    };
    for (const auto &[name, line] : rows) {
        cores_affinity_req_t request = request_of(name);
        testing::internal::CaptureStderr();
        EXPECT_EQ(0, get_cores_affinity(&request)) << name;
        EXPECT_EQ(line, testing::internal::GetCapturedStderr()) << name;
    }
}
