// Fixture of the tests of the counter cache and its file.
#pragma once

#include "export_fixture.h"

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <sys/stat.h>

namespace export_test
{

inline constexpr std::size_t IMAGE = 168;

/// TMPDIR of its own, with the daemon's directory in it.
class Caching : public Export
{
protected:
    Caching()
    {
        char name[] = "/tmp/export-cache-XXXXXX";
        dir_ = mkdtemp(name);
        std::filesystem::create_directory(dir_ / "sflow");
        world().tmp_dir = dir_.string();
        log_everything();
    }
    ~Caching() override { std::filesystem::remove_all(dir_); }

    [[nodiscard]] std::filesystem::path path() const { return dir_ / "sflow" / "tmp_file"; }
    [[nodiscard]] std::vector<std::uint8_t> file() const
    {
        std::ifstream in(path(), std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
    void write_file(const std::vector<std::uint8_t> &bytes) const
    {
        std::ofstream out(path(), std::ios::binary);
        out.write(reinterpret_cast<const char *>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }
    static std::vector<std::uint8_t> image(IFINDEX ifx, std::uint32_t errors = 0, std::uint8_t links = 0xee)
    {
        sflow_counter_node_t node = {};
        std::memset(&node.list, links, sizeof(node.list));
        node.ifx = ifx;
        node.generic.ifInErrors = errors;
        std::vector<std::uint8_t> bytes(sizeof(node));
        std::memcpy(bytes.data(), &node, sizeof(node));
        return bytes;
    }
    static std::vector<std::uint8_t> joined(std::initializer_list<std::vector<std::uint8_t>> parts)
    {
        std::vector<std::uint8_t> bytes;
        for (const auto &part : parts)
            bytes.insert(bytes.end(), part.begin(), part.end());
        return bytes;
    }
    static sflow_counter_node_t *add(IFINDEX ifx)
    {
        sflow_config_wrlock();
        sflow_counter_node_t *node = sflow_poller_add_counter(ifx);
        sflow_config_wrunlock();
        return node;
    }
    static void del(sflow_counter_node_t *node)
    {
        sflow_config_wrlock();
        sflow_poller_del_counter(node);
        sflow_config_wrunlock();
    }
    static void save()
    {
        sflow_config_wrlock();
        sflow_poller_save_counter();
        sflow_config_wrunlock();
    }
    static sflow_counter_node_t *cached(IFINDEX ifx)
    {
        sflow_config_rdlock();
        sflow_counter_node_t *node = sflow_poller_get_counter(ifx);
        sflow_config_rdunlock();
        return node;
    }
    /// Interfaces of the cache in list order.
    static std::vector<IFINDEX> listed()
    {
        std::vector<IFINDEX> result;
        sflow_config_rdlock();
        for (const sflow_list_t *link = sflow_counter_list.next; link != &sflow_counter_list;
             link = link->next)
            result.push_back(reinterpret_cast<const sflow_counter_node_t *>(link)->ifx);
        sflow_config_rdunlock();
        return result;
    }

    /// What the file has to be: the images of all nodes in list order, links zero.
    static std::vector<std::uint8_t> images_of_the_cache()
    {
        std::vector<std::uint8_t> bytes;
        sflow_config_rdlock();
        for (const sflow_list_t *link = sflow_counter_list.next; link != &sflow_counter_list;
             link = link->next) {
            sflow_counter_node_t node = *reinterpret_cast<const sflow_counter_node_t *>(link);
            node.list = {};
            const auto *first = reinterpret_cast<const std::uint8_t *>(&node);
            bytes.insert(bytes.end(), first, first + sizeof(node));
        }
        sflow_config_rdunlock();
        return bytes;
    }
    /// An update from the sampling service, as the dispatcher applies it.
    static void update(IFINDEX ifx, std::uint32_t errors)
    {
        sflow_msg_counter_t counters = {};
        counters.generic_counter.ifInOctets = errors;
        counters.generic_counter.ifInErrors = errors;
        counters.ether_counter.dot3StatsSymbolErrors = errors;
        const sflow_msg_t event = {
            .list = {}, .ifx = ifx, .type = SFLOW_MSG_UPDATE_COUNTER, .msg = &counters};
        sflow_poller_update_counter(&event);
    }

private:
    std::filesystem::path dir_;
};

/// A cache with its file, and what the file must then be.
class Saving : public Caching
{
protected:
    /// A cache of interfaces 1 … `number` and its file.
    static void fill(IFINDEX number)
    {
        for (IFINDEX ifx = 1; ifx <= number; ifx++)
            add(ifx)->generic.ifInErrors = ifx;
        save();
        reset_syscalls();
        fake::forget_syslog();
    }
    /// What the standby does with the records of the active unit: nothing is saved.
    static void take_over(IFINDEX ifx, std::uint32_t errors)
    {
        sflow_config_wrlock();
        sflow_poller_set_counter(sflow_poller_get_counter(ifx), {.ifInErrors = errors}, {});
        sflow_config_wrunlock();
    }
    static void forget(IFINDEX ifx)
    {
        sflow_config_wrlock();
        sflow_poller_free_counter(sflow_poller_get_counter(ifx));
        sflow_config_wrunlock();
    }
    void expect_file_is_the_cache(const std::string &after) const
    {
        EXPECT_TRUE(file() == images_of_the_cache()) << after << ": the file has " << file().size()
                                                     << " bytes, the cache " << images_of_the_cache().size();
    }
    [[nodiscard]] std::vector<std::string> directory() const
    {
        std::vector<std::string> names;
        for (const auto &entry : std::filesystem::directory_iterator(path().parent_path()))
            names.push_back(entry.path().filename());
        return names;
    }
    [[nodiscard]] struct stat status() const
    {
        struct stat result = {};
        EXPECT_EQ(stat(path().c_str(), &result), 0);
        return result;
    }
    /// Repeats `meddle` until the file's time of change shows it, which takes a tick of the kernel's clock at most.
    void meddle_visibly(const std::function<void()> &meddle) const
    {
        const timespec before = status().st_ctim;
        do {
            meddle();
        } while (std::filesystem::exists(path()) && status().st_ctim.tv_nsec == before.tv_nsec &&
                 status().st_ctim.tv_sec == before.tv_sec);
    }
};

} // namespace export_test
