#include "redundancy/pair_sync.h"

#include <algorithm>
#include <cstring>
#include <syslog.h>

namespace platform
{

namespace
{

using std::chrono::milliseconds;

/// A question that the client could not answer is put again after this; a request that went unanswered, too.
constexpr milliseconds ask_again{1000};
constexpr milliseconds request_again{3000};
/// A standby that believes itself up to date while its master does not say so asks again after this.
constexpr milliseconds at_odds_patience{2000};
/// How long a standby collects what it contributes.
constexpr milliseconds contribution_time{1000};
/// Messages that a client may have before it; what comes on top is dropped, and a new batch asked for later.
constexpr std::size_t in_flight_max = 20000;
/// Keys of a contribution that are kept.
constexpr std::size_t contributed_max = 100000;

Bytes bytes_of(unsigned long value)
{
    Bytes bytes(sizeof(value));
    std::memcpy(bytes.data(), &value, sizeof(value));
    return bytes;
}

} // namespace

// ---- Clients ------------------------------------------------------------------------------------------------------

bool PairSync::add_client(const std::string &name, std::uint64_t version)
{
    if (!clients_.contains(name) && clients_.size() == CLIENTS_MAX)
        return false;
    Client client;
    client.version = version;
    clients_.insert_or_assign(name, std::move(client));
    return true;
}

std::vector<ClientInfo> PairSync::clients() const
{
    std::vector<ClientInfo> list;
    for (const auto &[name, client] : clients_)
        list.push_back({.name = name, .version = client.version});
    return list;
}

std::map<std::string, PairSync::Counts> PairSync::counts() const
{
    std::map<std::string, Counts> counts;
    for (const auto &[name, client] : clients_)
        counts[name] = client.counts;
    return counts;
}

const ClientInfo *PairSync::partners(const std::string &name) const
{
    const auto &theirs = situation_.partner_clients;
    const auto found =
        std::find_if(theirs.begin(), theirs.end(), [&](const ClientInfo &c) { return c.name == name; });
    return situation_.partner && found != theirs.end() ? &*found : nullptr;
}

bool PairSync::shared(const std::string &name, const Client &client) const
{
    return client.verdict == Verdict::pass && partners(name) != nullptr;
}

bool PairSync::exchanging() const
{
    return std::any_of(clients_.begin(), clients_.end(),
                       [&](const auto &entry) { return shared(entry.first, entry.second); });
}

bool PairSync::up_to_date() const
{
    return exchanging() && std::all_of(clients_.begin(), clients_.end(), [&](const auto &entry) {
               const auto &[name, client] = entry;
               if (partners(name) == nullptr || client.verdict == Verdict::fail)
                   return true;
               return situation_.role == RDND_ROLE_MASTER ? client.feed == Feed::realtime
                                                          : client.follow == Follow::realtime;
           });
}

void PairSync::owe_contribution()
{
    for (auto &[name, client] : clients_)
        client.owes = counter_shape(name) != nullptr;
}

void PairSync::forgive_contribution()
{
    for (auto &[name, client] : clients_)
        client.owes = client.contributing = false;
}

// ---- What Pair tells ----------------------------------------------------------------------------------------------

void PairSync::end_exchange(Client &client)
{
    client.feed = Feed::none;
    client.wanted.reset();
    client.stopped = false;
    client.contributed.clear();
    client.follow = Follow::none;
    client.contributing = false;
}

bool PairSync::situate(Situation situation, PairTime now)
{
    const bool other_role = situation.role != situation_.role;
    const bool other_partner =
        situation.partner != situation_.partner || situation.partner_instance != situation_.partner_instance;
    situation_ = std::move(situation);
    for (auto &[name, client] : clients_) {
        if (other_role || other_partner)
            end_exchange(client);
        if (other_partner) {
            client.verdict = Verdict::none;
            client.ask_after = now;
        }
    }
    return other_role || other_partner;
}

void PairSync::advance(PairTime now)
{
    if (!situation_.settled || !situation_.partner)
        return;
    compare_notes(now);
    for (auto &[name, client] : clients_) {
        if (client.verdict == Verdict::none && now >= client.ask_after && partners(name) != nullptr)
            judge(name, client, now);
        if (!shared(name, client))
            continue;
        if (situation_.role == RDND_ROLE_MASTER)
            advance_master(name, client);
        else if (situation_.role == RDND_ROLE_SLAVE)
            advance_standby(name, client, now);
    }
}

/// A master may have taken this unit for dead, and have stopped feeding it, while it only stood still.
void PairSync::compare_notes(PairTime now)
{
    const bool at_odds = situation_.role == RDND_ROLE_SLAVE && up_to_date() &&
                         situation_.partner_state != RDND_STAT_REALTIME &&
                         situation_.partner_state != RDND_STAT_SWITCHOVER;
    if (!at_odds)
        at_odds_since_.reset();
    else if (!at_odds_since_)
        at_odds_since_ = now;
    else if (now - *at_odds_since_ >= at_odds_patience)
        for (auto &[name, client] : clients_)
            client.follow = Follow::none;
}

// ---- Versions -----------------------------------------------------------------------------------------------------

void PairSync::judge(const std::string &name, Client &client, PairTime now)
{
    client.ask_after = now + ask_again;
    if (!host_.post(name, RDND_E_VERSION_CHECK, bytes_of(partners(name)->version)))
        return;
    client.verdict = Verdict::asked;
    client.questions.push_back(situation_.partner_instance);
}

void PairSync::judged(const std::string &name, Client &client, int answer, PairTime now)
{
    if (client.questions.empty())
        return;
    const std::uint64_t instance = client.questions.front();
    client.questions.pop_front();
    const ClientInfo *theirs = partners(name);
    if (client.verdict != Verdict::asked || theirs == nullptr || instance != situation_.partner_instance)
        return;
    if (answer == RDND_VERCHK_ERROR) {
        client.verdict = Verdict::none;
        client.ask_after = now + ask_again;
        return;
    }
    client.verdict = answer == RDND_VERCHK_PASS ? Verdict::pass : Verdict::fail;
    if (client.verdict == Verdict::fail)
        host_.log(LOG_WARNING, "VERSION",
                  situation_.partner_name + " sends checkpoint messages of version " +
                      std::to_string(theirs->version) + " under " + name + ", this unit of version " +
                      std::to_string(client.version) +
                      ": they are not exchanged, a switchover loses what they would have carried");
}

void PairSync::handled(const std::string &name, RDND_EVENT event, int answer, PairTime now)
{
    const auto found = clients_.find(name);
    if (found == clients_.end())
        return;
    if (event == RDND_E_VERSION_CHECK)
        judged(name, found->second, answer, now);
    else if (event == RDND_E_BACKUP_MSG && found->second.in_flight > 0)
        --found->second.in_flight;
}

// ---- The master ---------------------------------------------------------------------------------------------------

bool PairSync::request(MemberId from, const SyncRequestFrame &frame)
{
    const auto found = clients_.find(frame.name);
    if (situation_.role != RDND_ROLE_MASTER || situation_.partner != from || found == clients_.end())
        return false;
    found->second.wanted = frame.batch;
    return true;
}

void PairSync::advance_master(const std::string &name, Client &client)
{
    if (client.wanted)
        begin_batch(name, client, *client.wanted);
    else if (client.stopped && !congested_)
        begin_batch(name, client, client.feed_batch);
}

void PairSync::begin_batch(const std::string &name, Client &client, std::uint32_t batch)
{
    client.wanted.reset();
    client.stopped = false;
    client.feed = Feed::batch;
    client.feed_batch = batch;
    outbox_.ordered(BatchFrame{.mark = BatchFrame::Mark::begin, .batch = batch, .name = name});
    host_.post(name, RDND_E_BATCH_SYN_REQ, {});
}

int PairSync::feed(const std::string &name, Client &client, std::span<const std::byte> message)
{
    if (client.feed == Feed::none)
        return RDND_ENQUEUE_STOP;
    if (congested_ || outbox_.full(message.size())) {
        client.feed = Feed::none;
        client.stopped = true;
        return RDND_ENQUEUE_STOP;
    }
    DataFrame frame{
        .kind = DataFrame::Kind::checkpoint, .name = name, .data = {message.begin(), message.end()}};
    if (client.feed == Feed::batch)
        merge_into(name, client, frame.data);
    outbox_.ordered(frame);
    ++client.counts.sent;
    return RDND_ENQUEUE_OK;
}

int PairSync::enqueue(const std::string &name, std::span<const std::byte> message)
{
    const auto found = clients_.find(name);
    if (found == clients_.end() || message.empty() || message.size() > CHECKPOINT_MAX)
        return RDND_ENQUEUE_FAILED;
    Client &client = found->second;
    if (situation_.role == RDND_ROLE_MASTER)
        return feed(name, client, message);
    if (!client.contributing || congested_ || outbox_.full(message.size()))
        return RDND_ENQUEUE_STOP;
    outbox_.ordered(DataFrame{
        .kind = DataFrame::Kind::contribution, .name = name, .data = {message.begin(), message.end()}});
    return RDND_ENQUEUE_OK;
}

void PairSync::batch_completed(const std::string &name)
{
    const auto found = clients_.find(name);
    if (found == clients_.end())
        return;
    Client &client = found->second;
    if (client.contributing) {
        end_contribution(name, client);
    } else if (client.feed == Feed::batch) {
        merge_leftovers(name, client);
        client.feed = Feed::realtime;
        outbox_.ordered(BatchFrame{.mark = BatchFrame::Mark::end, .batch = client.feed_batch, .name = name});
    }
}

/// Raises a message of a batch to what the standby has contributed. The client learns of it too.
void PairSync::merge_into(const std::string &name, Client &client, Bytes &message)
{
    const CounterShape *shape = client.contributed.empty() ? nullptr : counter_shape(name);
    if (shape == nullptr)
        return;
    const auto key = counter_key(*shape, message);
    const auto found = key ? client.contributed.find(*key) : client.contributed.end();
    if (found == client.contributed.end())
        return;
    Bytes merged = higher_counters(*shape, message, found->second);
    client.contributed.erase(found);
    if (merged == message)
        return;
    give_to_client(name, client, merged);
    message = std::move(merged);
}

/// What only the standby has.
void PairSync::merge_leftovers(const std::string &name, Client &client)
{
    for (auto &[key, message] : client.contributed) {
        give_to_client(name, client, message);
        outbox_.ordered(
            DataFrame{.kind = DataFrame::Kind::checkpoint, .name = name, .data = std::move(message)});
        ++client.counts.sent;
    }
    client.contributed.clear();
}

// ---- The standby --------------------------------------------------------------------------------------------------

void PairSync::advance_standby(const std::string &name, Client &client, PairTime now)
{
    if (client.owes) {
        contribute(name, client, now);
        return;
    }
    const bool unanswered = client.follow == Follow::requested && now - client.follow_since >= request_again;
    if ((client.follow != Follow::none && !unanswered) || client.in_flight > 0)
        return;
    client.follow = Follow::requested;
    client.follow_since = now;
    client.follow_batch = ++batches_;
    // Behind what this unit contributes.
    outbox_.ordered(SyncRequestFrame{.batch = client.follow_batch, .name = name});
}

void PairSync::contribute(const std::string &name, Client &client, PairTime now)
{
    if (!client.contributing) {
        client.contributing = host_.post(name, RDND_E_BATCH_SYN_REQ, {});
        client.contribute_until = now + contribution_time;
    }
    if (!client.contributing || now >= client.contribute_until)
        end_contribution(name, client);
}

void PairSync::end_contribution(const std::string &name, Client &client)
{
    client.owes = client.contributing = false;
    outbox_.ordered(BatchFrame{.mark = BatchFrame::Mark::contribution_end, .batch = 0, .name = name});
}

void PairSync::give_to_client(const std::string &name, Client &client, Bytes data)
{
    if (host_.post(name, RDND_E_BACKUP_MSG, std::move(data)))
        ++client.in_flight;
}

bool PairSync::mark(MemberId from, const BatchFrame &frame)
{
    const auto found = clients_.find(frame.name);
    if (situation_.partner != from || found == clients_.end())
        return false;
    Client &client = found->second;
    if (frame.mark == BatchFrame::Mark::contribution_end)
        return situation_.role == RDND_ROLE_MASTER;
    if (situation_.role != RDND_ROLE_SLAVE)
        return false;
    // Another batch than the last one asked for may still be on its way.
    if (client.follow == Follow::none || frame.batch != client.follow_batch)
        return true;
    client.follow = frame.mark == BatchFrame::Mark::begin ? Follow::batch : Follow::realtime;
    return true;
}

bool PairSync::data(MemberId from, DataFrame frame)
{
    const auto found = clients_.find(frame.name);
    if (found == clients_.end())
        return false;
    Client &client = found->second;
    const bool contribution = frame.kind == DataFrame::Kind::contribution;
    if (situation_.partner != from ||
        situation_.role != (contribution ? RDND_ROLE_MASTER : RDND_ROLE_SLAVE)) {
        ++client.counts.refused;
        return false;
    }
    if (contribution) {
        const CounterShape *shape = counter_shape(frame.name);
        const auto key = shape != nullptr ? counter_key(*shape, frame.data) : std::nullopt;
        if (!key || client.contributed.size() == contributed_max) {
            ++client.counts.refused;
            return false;
        }
        client.contributed.insert_or_assign(*key, std::move(frame.data));
        return true;
    }
    if (client.follow != Follow::batch && client.follow != Follow::realtime)
        return true;
    if (client.in_flight == in_flight_max) {
        client.follow = Follow::none;
        return true;
    }
    give_to_client(frame.name, client, std::move(frame.data));
    ++client.counts.received;
    return true;
}

} // namespace platform
