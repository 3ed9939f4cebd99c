#include "pair_world.h"

#include <algorithm>
#include <cstring>
#include <gtest/gtest.h>

namespace pair_test
{

using namespace platform;

namespace
{

constexpr std::size_t record_size = 176;

template <typename Integer>
void put(Bytes &bytes, std::size_t offset, Integer value)
{
    std::memcpy(bytes.data() + offset, &value, sizeof(value));
}

template <typename Integer>
Integer get(const Bytes &bytes, std::size_t offset)
{
    Integer value = 0;
    std::memcpy(&value, bytes.data() + offset, sizeof(value));
    return value;
}

char letter(RDND_EVENT event)
{
    constexpr std::string_view letters = "RVBWFSEm";
    return letters.at(static_cast<std::size_t>(event));
}

} // namespace

Bytes record(std::uint32_t ifx, std::uint64_t in_octets, bool removed)
{
    Bytes bytes(record_size);
    put<std::uint32_t>(bytes, 0, removed ? 0 : 1);
    put(bytes, 24, ifx);
    put(bytes, 56, in_octets);
    return bytes;
}

std::uint32_t record_ifx(const Bytes &message)
{
    return get<std::uint32_t>(message, 24);
}

std::uint64_t record_octets(const Bytes &message)
{
    return get<std::uint64_t>(message, 56);
}

// ---- Unit ---------------------------------------------------------------------------------------------------------

Unit::Unit(World &w, std::uint32_t node) : world(w), id{.node = node} {}

bool Unit::post(const std::string &name, RDND_EVENT event, Bytes data)
{
    posted_.push_back({name, event, std::move(data)});
    return true;
}

void Unit::log(int, const char *mnemonic, const std::string &text)
{
    logs.push_back(std::string(mnemonic) + ": " + text);
}

bool Unit::is_master() const
{
    return pair != nullptr && pair->role() == RDND_ROLE_MASTER && world.now() - last_ran_ <= pair->lease();
}

bool Unit::logged(const std::string &text) const
{
    return std::any_of(logs.begin(), logs.end(),
                       [&](const std::string &line) { return line.find(text) != std::string::npos; });
}

std::string Unit::take_events()
{
    return std::exchange(events_, "");
}

std::string Unit::shown(const std::string &heading) const
{
    for (const RdndReportLine &line : pair->report(pair->role()))
        if (line.heading == heading)
            return line.value;
    return "no such line";
}

void Unit::note_result(int result)
{
    ++results[result == RDND_ENQUEUE_OK ? 0 : result == RDND_ENQUEUE_STOP ? 1 : 2];
    if (result == RDND_ENQUEUE_STOP)
        can_backup = false;
}

void Unit::send(const Bytes &message)
{
    if (can_backup)
        note_result(pair->enqueue(CLIENT, message));
}

void Unit::count(std::uint32_t ifx, std::uint64_t more)
{
    cache[ifx] += more;
    send(record(ifx, cache[ifx]));
}

void Unit::remove(std::uint32_t ifx)
{
    send(record(ifx, cache[ifx], true));
    cache.erase(ifx);
}

void Unit::handle(const Posted &posted)
{
    int answer = 0;
    if (posted.event == RDND_E_BACKUP_MSG) {
        if (get<std::uint32_t>(posted.data, 0) == 1)
            cache[record_ifx(posted.data)] = record_octets(posted.data);
        else
            cache.erase(record_ifx(posted.data));
    } else {
        events_ += letter(posted.event);
    }
    if (posted.event == RDND_E_VERSION_CHECK) {
        const bool judges = pair->role() == RDND_ROLE_MASTER || pair->role() == RDND_ROLE_SLAVE;
        const bool same = get<unsigned long>(posted.data, 0) == version;
        answer = !judges ? RDND_VERCHK_ERROR : same ? RDND_VERCHK_PASS : RDND_VERCHK_NG;
    }
    if (posted.event == RDND_E_BATCH_SYN_REQ) {
        can_backup = true;
        for (const auto &[ifx, octets] : cache)
            send(record(ifx, octets));
        if (can_backup)
            pair->completed(CLIENT, RDND_NOTIFY_BATCH);
    }
    if (posted.event == RDND_E_SWITCHOVER && acknowledges)
        pair->completed(CLIENT, RDND_NOTIFY_SWITCHOVER);
    pair->handled(posted.name, posted.event, answer);
}

void Unit::run_client()
{
    while (handles && !posted_.empty()) {
        const Posted posted = std::move(posted_.front());
        posted_.pop_front();
        handle(posted);
    }
}

void Unit::receive()
{
    while (!inbox_.empty()) {
        const auto next = std::move(inbox_.front());
        inbox_.pop_front();
        if (const auto *view = std::get_if<GroupView>(&next))
            pair->view(*view);
        else if (const auto *quorum = std::get_if<Quorum>(&next))
            pair->quorum(quorum->quorate, quorum->nodes);
        else
            pair->deliver(std::get<Delivery>(next).from, std::get<Delivery>(next).bytes);
    }
}

// ---- World --------------------------------------------------------------------------------------------------------

World::World(int units) : quorum_rule_(every_part_has_quorum)
{
    for (int n = 1; n <= units; ++n)
        units_.push_back(std::make_unique<Unit>(*this, static_cast<std::uint32_t>(n)));
}

std::set<MemberId> World::members_of(int part) const
{
    std::set<MemberId> members;
    for (const auto &unit : units_)
        if (unit->pair && unit->engine && unit->part == part)
            members.insert(unit->id);
    return members;
}

std::set<std::uint32_t> World::nodes_of(int part) const
{
    std::set<std::uint32_t> nodes;
    for (const auto &unit : units_)
        if (unit->engine && unit->part == part)
            nodes.insert(unit->id.node);
    return nodes;
}

/// Each unit gets the difference to what it knew itself, after those before it in the order of causes.
void World::change_view(int part, const std::map<MemberId, GroupView::Cause> &left)
{
    const std::set<MemberId> members = members_of(part);
    for (const auto &unit : units_) {
        if (!members.contains(unit->id) || unit->known_ == members)
            continue;
        GroupView view;
        view.members.assign(members.begin(), members.end());
        for (const MemberId id : unit->known_) {
            const auto cause = left.find(id);
            if (!members.contains(id))
                view.left.push_back({id, cause != left.end() ? cause->second : GroupView::Cause::node_down});
        }
        for (const MemberId id : members)
            if (!unit->known_.contains(id))
                view.joined.push_back(id);
        unit->known_ = members;
        unit->inbox_.push_back(view);
    }
}

/// The quorum comes behind the view, as it does from a cluster engine.
void World::tell_quorum(int part)
{
    const std::set<std::uint32_t> nodes = nodes_of(part);
    for (const auto &unit : units_)
        if (unit->pair && unit->engine && unit->part == part)
            unit->inbox_.push_back(Unit::Quorum{quorum_rule_(*this, nodes), {nodes.begin(), nodes.end()}});
}

void World::start(std::uint32_t node)
{
    Unit &u = unit(node);
    u.id.pid = next_pid_++;
    u.stopped = u.can_backup = u.blocked = false;
    u.acknowledges = u.handles = true;
    u.last_ran_ = now_;
    u.pair =
        std::make_unique<Pair>(PairSettings{.host = "unit" + std::to_string(node), .instance = next_pid_}, u,
                               [this] { return now_; });
    EXPECT_TRUE(u.pair->add_client(CLIENT, u.version));
    if (!u.engine)
        return;
    u.pair->connected(u.id);
    change_view(u.part, {});
    tell_quorum(u.part);
}

void World::kill(std::uint32_t node)
{
    Unit &u = unit(node);
    const MemberId id = u.id;
    u.pair.reset();
    u.posted_.clear();
    u.inbox_.clear();
    u.under_way_.clear();
    u.known_.clear();
    u.cache.clear();
    u.events_.clear();
    change_view(u.part, {{id, GroupView::Cause::process_ended}});
}

void World::stop(std::uint32_t node)
{
    unit(node).stopped = true;
}

void World::resume(std::uint32_t node)
{
    unit(node).stopped = false;
}

void World::kill_engine(std::uint32_t node)
{
    Unit &u = unit(node);
    u.engine = false;
    u.inbox_.clear();
    u.under_way_.clear();
    u.known_.clear();
    if (u.pair)
        u.pair->disconnected("corosync has ended");
    change_view(u.part, {});
    tell_quorum(u.part);
}

void World::start_engine(std::uint32_t node)
{
    Unit &u = unit(node);
    u.engine = true;
    if (u.pair)
        u.pair->connected(u.id);
    change_view(u.part, {});
    tell_quorum(u.part);
}

void World::split()
{
    for (const auto &unit : units_)
        unit->part = static_cast<int>(unit->id.node) - 1;
    for (const auto &unit : units_) {
        change_view(unit->part, {});
        tell_quorum(unit->part);
    }
}

void World::merge()
{
    for (const auto &unit : units_)
        unit->part = 0;
    change_view(0, {});
    tell_quorum(0);
}

void World::set_quorum_rule(QuorumRule rule)
{
    quorum_rule_ = rule;
    for (const auto &unit : units_)
        if (unit->pair && unit->engine)
            unit->inbox_.push_back(Unit::Quorum{rule(*this, nodes_of(unit->part)), [&] {
                                                    const auto nodes = nodes_of(unit->part);
                                                    return std::vector<std::uint32_t>(nodes.begin(),
                                                                                      nodes.end());
                                                }()});
}

void World::inject(MemberId from, const Bytes &bytes, int part)
{
    for (const auto &unit : units_)
        if (unit->pair && unit->engine && unit->part == part)
            unit->inbox_.push_back(Unit::Delivery{from, bytes});
}

/// The group takes one frame of each unit; true when there was one.
bool World::send_frames()
{
    bool moved = false;
    for (const auto &unit : units_) {
        if (!unit->running() || !unit->engine)
            continue;
        const PairOutbox::Sealed frame = unit->pair->next_frame();
        if (frame == nullptr)
            continue;
        if (unit->blocked) {
            unit->pair->blocked();
            continue;
        }
        unit->pair->sent(frame);
        unit->under_way_.push_back({now_ + unit->latency, *frame});
        moved = true;
    }
    return moved;
}

/// What is due goes into the inboxes of the sender's part; true when there was something.
bool World::deliver_frames()
{
    bool moved = false;
    for (const auto &unit : units_) {
        while (!unit->under_way_.empty() && unit->under_way_.front().due <= now_) {
            inject(unit->id, unit->under_way_.front().bytes, unit->part);
            unit->under_way_.pop_front();
            moved = true;
        }
    }
    return moved;
}

void World::run(milliseconds time)
{
    for (milliseconds spent{0}; spent < time; spent += step) {
        now_ += step;
        two_masters_allowed = std::max(milliseconds(0), two_masters_allowed - step);
        for (const auto &unit : units_) {
            if (!unit->running())
                continue;
            unit->pair->tick();
            unit->last_ran_ = now_;
        }
        bool moved = true;
        while (moved) {
            const bool sent = send_frames();
            moved = deliver_frames() || sent;
            for (const auto &unit : units_) {
                if (!unit->running())
                    continue;
                unit->receive();
                unit->run_client();
                check_always();
            }
        }
    }
}

std::vector<std::uint32_t> World::masters() const
{
    std::vector<std::uint32_t> nodes;
    for (const auto &unit : units_)
        if (unit->is_master())
            nodes.push_back(unit->id.node);
    return nodes;
}

void World::check_always()
{
    std::map<int, int> masters;
    for (const auto &unit : units_)
        if (unit->is_master())
            ++masters[unit->part];
    for (const auto &[part, count] : masters)
        if (two_masters_allowed.count() == 0)
            ASSERT_LE(count, 1) << "two masters see each other at " << time().count() << " ms";
}

bool every_part_has_quorum(const World &, const std::set<std::uint32_t> &)
{
    return true;
}

bool third_vote_decides(const World &world, const std::set<std::uint32_t> &nodes)
{
    return nodes.size() >= 2 || nodes.contains(static_cast<std::uint32_t>(world.third_vote) + 1);
}

bool nobody_has_quorum(const World &, const std::set<std::uint32_t> &)
{
    return false;
}

bool two_nodes_needed(const World &, const std::set<std::uint32_t> &nodes)
{
    return nodes.size() >= 2;
}

} // namespace pair_test
