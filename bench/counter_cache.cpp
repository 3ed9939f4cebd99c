// Cost of counters at 10, 1,000 and 10,000 interfaces: of an update from the sampling service, which goes into the
// cache and its file, of an exported report, and of the one-second countdown.
//
// Updates and exports stand beside limit programs that make the same system calls, copy the same bytes and do nothing
// else; an update's is opening, looking at, writing and closing one image's place in a file of the same size, an
// export's a datagram of seven samples. Interfaces are taken in an order that no cache of the processor foresees.
// Everybody takes turns of a few milliseconds at every number of interfaces, measured in processor time, and what is
// shown are medians over the rounds. Ends with status 1 when an update or an export at 10,000 interfaces costs twice as
// much as at 10.
// Usage: [TMPDIR=DIRECTORY] counter_cache [ROUNDS]
#include "bench_support.h"

#include "sflow_agent.h"
#include "sflow_dbg.h"
#include "sflow_poller.h"
#include "sflow_process.h"

#include <cinttypes>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <string>
#include <sys/stat.h>

using namespace bench;

namespace
{

constexpr IFINDEX NUMBERS[] = {10, 1000, 10000};
constexpr std::size_t IMAGE_LEN = sizeof(sflow_counter_node_t);
constexpr std::size_t SAMPLE_LEN = 176;
/// A datagram of 1400 bytes takes 7 samples behind its header of 28.
constexpr int SAMPLES_PER_DATAGRAM = 7;
constexpr std::size_t DATAGRAM_LEN = 28 + SAMPLES_PER_DATAGRAM * SAMPLE_LEN;
constexpr int UPDATES_PER_TURN = 1000;
constexpr int EXPORTS_PER_TURN = 300 * SAMPLES_PER_DATAGRAM;
/// Interfaces that a turn of countdowns passes, whatever their number.
constexpr int COUNTDOWNS_PER_TURN = 200000;

/// The directory of the daemon's files, below TMPDIR and gone with this object.
class Directory
{
public:
    Directory()
    {
        std::string name = (std::filesystem::temp_directory_path() / "counter_cache.XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr)
            fail(name.c_str());
        path_ = name;
        setenv("TMPDIR", name.c_str(), 1);
        if (sflow_make_dir() != 0)
            fail(name.c_str());
    }
    ~Directory()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    Directory(const Directory &) = delete;
    Directory &operator=(const Directory &) = delete;

    [[nodiscard]] std::string file(const char *name) const { return path_ / name; }

private:
    std::filesystem::path path_;
};

/// Interfaces 1 … `number`, each again and again, far from the one before.
class Order
{
public:
    explicit Order(IFINDEX number) : number_(number) {}
    IFINDEX next()
    {
        state_ = state_ * 6364136223846793005U + 1442695040888963407U;
        return 1 + static_cast<IFINDEX>((state_ >> 33) % number_);
    }

private:
    IFINDEX number_;
    std::uint64_t state_ = 1;
};

void forget_interfaces()
{
    sflow_config_wrlock();
    while (!sflow_list_empty(&sflow_counter_list))
        sflow_poller_free_counter(sflow_list_entry<sflow_counter_node_t>(sflow_counter_list.next));
    sflow_list_for_each<sflow_intf_config_t>(&sflow_agent.intf_config, [](sflow_intf_config_t *intf) {
        sflow_config_held();
        intf->enable = intf->cid = intf->fid = 0;
        sflow_del_intf_config(intf);
    });
    sflow_config_wrunlock();
}

/// Interfaces 1 … `number`, all exporting to collector 1, all cached and in the file.
void make_interfaces(IFINDEX number)
{
    forget_interfaces();
    sflow_config_wrlock();
    for (IFINDEX ifx = 1; ifx <= number; ifx++) {
        sflow_intf_config_t *intf = sflow_add_intf_config(ifx);
        if (intf == nullptr || sflow_poller_add_counter(ifx) == nullptr)
            fail("interfaces");
        intf->cid = 1;
        intf->enable = SFLOW_INGRESS;
        intf->countdown = 0xffffffff;
    }
    sflow_poller_save_counter();
    sflow_config_wrunlock();
}

sflow_msg_counter_t counters()
{
    sflow_msg_counter_t report = {};
    report.generic_counter.ifInOctets = 1500;
    report.generic_counter.ifInUcastPkts = 1;
    return report;
}

void update(IFINDEX number)
{
    Order order(number);
    sflow_msg_counter_t report = counters();
    for (int i = 0; i < UPDATES_PER_TURN; i++) {
        const sflow_msg_t event = {
            .list = {}, .ifx = order.next(), .type = SFLOW_MSG_UPDATE_COUNTER, .msg = &report};
        sflow_poller_update_counter(&event);
    }
}

void update_limit(IFINDEX number, const std::string &path)
{
    Order order(number);
    char image[IMAGE_LEN] = {};
    for (int i = 0; i < UPDATES_PER_TURN; i++) {
        const off_t offset = static_cast<off_t>((order.next() - 1) * IMAGE_LEN);
        struct stat status;
        const Descriptor fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0777));
        if (fd.get() == -1 || fstat(fd.get(), &status) != 0 ||
            pwrite(fd.get(), image, sizeof(image), offset) != static_cast<ssize_t>(sizeof(image)) ||
            fstat(fd.get(), &status) != 0)
            fail("limit program");
    }
}

void export_reports(IFINDEX number)
{
    Order order(number);
    for (int i = 0; i < EXPORTS_PER_TURN; i++) {
        sflow_msg_counter_t report = counters();
        sflow_msg_t event = {
            .list = {}, .ifx = order.next(), .type = SFLOW_MSG_GET_COUNTER_RSP, .msg = &report};
        if (sflow_poller_write_countersample(&event) != 0)
            fail("export");
    }
}

void export_limit(const Sink &sink)
{
    static char datagram[DATAGRAM_LEN];
    static const char sample[SAMPLE_LEN] = {};
    Descriptor fd;
    for (int i = 0; i < EXPORTS_PER_TURN / SAMPLES_PER_DATAGRAM; i++) {
        for (std::size_t at = 28; at < sizeof(datagram); at += SAMPLE_LEN) {
            std::memcpy(datagram + at, sample, sizeof(sample));
            // Or the copies are merged into one.
            asm volatile("" : : "r"(datagram) : "memory");
        }
        send_on_fresh_socket(fd, sink, datagram);
    }
}

void count_down(IFINDEX number)
{
    for (IFINDEX passed = 0; passed < COUNTDOWNS_PER_TURN; passed += number) {
        sflow_config_wrlock();
        sflow_poller_countdown();
        sflow_config_wrunlock();
    }
}

/// Nanoseconds per operation of each round, and ratios to the limit program of the same round.
struct Series {
    std::vector<double> ours;
    std::vector<double> limits;
    std::vector<double> ratios;

    void add(int operations, double our_ns, double limit_ns)
    {
        ours.push_back(our_ns / operations);
        limits.push_back(limit_ns / operations);
        ratios.push_back(our_ns / limit_ns);
    }
};

struct Measured {
    Series updates;
    Series exports;
    std::vector<double> countdowns; ///< per interface
};

void measure(IFINDEX number, const Sink &sink, const std::string &limit_file, Measured &measured)
{
    make_interfaces(number);
    std::filesystem::resize_file(limit_file, 0);
    std::filesystem::resize_file(limit_file, number * IMAGE_LEN);
    // The first change of a turn may find a cold file.
    update(number);
    update_limit(number, limit_file);
    measured.updates.add(UPDATES_PER_TURN, nanoseconds_of([&] { update(number); }),
                         nanoseconds_of([&] { update_limit(number, limit_file); }));
    measured.exports.add(EXPORTS_PER_TURN, nanoseconds_of([&] { export_reports(number); }),
                         nanoseconds_of([&] { export_limit(sink); }));
    const IFINDEX passed = (COUNTDOWNS_PER_TURN + number - 1) / number * number;
    measured.countdowns.push_back(nanoseconds_of([&] { count_down(number); }) / passed);
}

void set_up(const Sink &sink)
{
    if (sflow_agent_init(&sflow_agent) != 0)
        fail("agent");
    sfladdress_t collector;
    std::memset(&collector, 0, sizeof(collector));
    collector.type = SFLOW_ADDRESS_TYPE_IPV4;
    collector.address.ip_v4 = sink.address().sin_addr.s_addr;
    sflow_config_wrlock();
    sflow_agent.agent_ip.cfg_type = SFLOW_AGENT_TYPE_ADDRESS;
    sflow_agent.agent_ip.type = SFLOW_ADDRESS_TYPE_IPV4;
    sflow_agent.agent_ip.address.ip_v4 = htonl(0xc0000201);
    sflow_receiver_set_collector(1, &collector, static_cast<u_int16_t>(sink.port()));
    sflow_config_wrunlock();
}

/// The file has to hold what the cache holds, or the cost of an update says nothing.
void check_file(const std::string &path, IFINDEX number)
{
    if (std::filesystem::file_size(path) != number * IMAGE_LEN || sflow_statis.sflow_export_fail_num != 0) {
        std::fprintf(stderr, "%s has %ju bytes for %u interfaces, %u datagrams failed\n", path.c_str(),
                     std::filesystem::file_size(path), number, sflow_statis.sflow_export_fail_num);
        std::exit(1);
    }
}

} // namespace

int main(int argc, char **argv)
{
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 51;
    if (rounds <= 0) {
        std::fprintf(stderr, "usage: [TMPDIR=DIRECTORY] counter_cache [ROUNDS]\n");
        return 2;
    }
    const Directory directory;
    const Sink sink;
    set_up(sink);
    const std::string limit_file = directory.file("limit");
    Descriptor(open(limit_file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0777)).reset();

    Measured measured[std::size(NUMBERS)];
    for (int round = 0; round < rounds; round++) {
        for (std::size_t i = 0; i < std::size(NUMBERS); i++) {
            measure(NUMBERS[i], sink, limit_file, measured[i]);
            check_file(directory.file("sflow/tmp_file"), NUMBERS[i]);
        }
    }

    std::printf("              update                      export                      countdown\n"
                "interfaces    ns      limit   ratio       ns      limit   ratio       ns per interface\n");
    for (std::size_t i = 0; i < std::size(NUMBERS); i++) {
        const Measured &each = measured[i];
        std::printf("%10u %7.0f %8.0f %8.2f %10.0f %8.0f %8.2f %12.2f\n", NUMBERS[i],
                    median(each.updates.ours), median(each.updates.limits), median(each.updates.ratios),
                    median(each.exports.ours), median(each.exports.limits), median(each.exports.ratios),
                    median(each.countdowns));
    }
    const Measured &few = measured[0];
    const Measured &many = measured[std::size(NUMBERS) - 1];
    const double update_growth = median(many.updates.ours) / median(few.updates.ours);
    const double export_growth = median(many.exports.ours) / median(few.exports.ours);
    std::printf("%u interfaces against %u: update x %.2f, export x %.2f\n", NUMBERS[std::size(NUMBERS) - 1],
                NUMBERS[0], update_growth, export_growth);
    forget_interfaces();
    return update_growth < 2 && export_growth < 2 ? 0 : 1;
}
