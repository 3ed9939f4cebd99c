// Keeps the standby's clients equal to the master's: judges versions, asks for batches, feeds messages, and brings
// together what two units counted on their own.
//
// Works for whatever role Pair says this unit has; it decides nothing about roles. Belongs to Pair's lock.
//
//   standby                                  master
//   a partner with our clients appears       a partner with our clients appears
//   RDND_E_VERSION_CHECK                     RDND_E_VERSION_CHECK
//   [was master itself: contribution ------> kept]
//   request a batch -----------------------> RDND_E_BATCH_SYN_REQ, messages of the client, RDND_NOTIFY_BATCH
//   RDND_E_BACKUP_MSG <--------------------- each message, then the client's real-time messages
#pragma once

#include "redundancy/counter_merge.h"
#include "redundancy/pair_outbox.h"
#include "redundancy/pair_roster.h"
#include "redundancy/rdnd_edition.h"

#include <deque>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace platform
{

/// What a pair asks of the process around it.
class PairHost : public RdndHost
{
public:
    /// A line for the operator; `level` as for syslog(3), `mnemonic` upper case.
    virtual void log(int level, const char *mnemonic, const std::string &text) = 0;
};

class PairSync
{
public:
    /// What Pair knows and this class goes by.
    struct Situation {
        rdnd_role role = RDND_ROLE_CANDIDATE;
        bool settled = false;            ///< clients know their role, and it does not change at the moment
        std::optional<MemberId> partner; ///< a master's standby, a standby's master
        std::string partner_name;        ///< for the log
        std::uint64_t partner_instance = 0;
        rdnd_stat partner_state = RDND_STAT_INIT;
        std::vector<ClientInfo> partner_clients;
    };
    struct Counts {
        std::uint64_t sent = 0;     ///< checkpoint messages taken for the standby
        std::uint64_t received = 0; ///< handed to the client
        std::uint64_t refused = 0;  ///< of the partner, or of others in its name
    };

    PairSync(PairHost &host, PairOutbox &outbox) : host_(host), outbox_(outbox) {}

    // Clients.
    bool add_client(const std::string &name, std::uint64_t version);
    [[nodiscard]] std::vector<ClientInfo> clients() const;
    int enqueue(const std::string &name, std::span<const std::byte> message);
    void batch_completed(const std::string &name);
    void handled(const std::string &name, RDND_EVENT event, int answer, PairTime now);

    // Pair.
    /// True when role or partner is another one than before, so that what waits to be sent is meant for nobody.
    bool situate(Situation situation, PairTime now);
    /// The group does not take messages; clients are told to stop, and get a new batch when it does again.
    void set_congested(bool congested) { congested_ = congested; }
    /// What is due: questions, requests, batches.
    void advance(PairTime now);
    /// This unit has been master on its own: what its clients hold is not a copy of the next master's.
    void owe_contribution();
    void forgive_contribution();

    // Frames. False: refused.
    bool request(MemberId from, const SyncRequestFrame &frame);
    bool mark(MemberId from, const BatchFrame &frame);
    bool data(MemberId from, DataFrame frame);

    /// Some client of both units can be kept equal.
    [[nodiscard]] bool exchanging() const;
    /// All that can be are.
    [[nodiscard]] bool up_to_date() const;
    [[nodiscard]] std::map<std::string, Counts> counts() const;

private:
    enum class Verdict { none, asked, pass, fail };
    enum class Feed { none, batch, realtime };
    enum class Follow { none, requested, batch, realtime };

    struct Client {
        std::uint64_t version = 0;
        Counts counts;

        Verdict verdict = Verdict::none;
        std::deque<std::uint64_t> questions; ///< partners' instances that the questions under way are about
        PairTime ask_after;

        // As master.
        Feed feed = Feed::none;
        std::uint32_t feed_batch = 0;
        std::optional<std::uint32_t> wanted; ///< batch asked for and not begun
        bool stopped = false; ///< the client was told to stop because the group did not take more
        std::map<std::uint32_t, Bytes> contributed; ///< by key

        // As standby.
        Follow follow = Follow::none;
        std::uint32_t follow_batch = 0;
        PairTime follow_since;
        std::size_t in_flight = 0; ///< messages posted that the client has not dealt with
        bool owes = false;
        bool contributing = false;
        PairTime contribute_until;
    };

    [[nodiscard]] const ClientInfo *partners(const std::string &name) const;
    [[nodiscard]] bool shared(const std::string &name, const Client &client) const;
    void judge(const std::string &name, Client &client, PairTime now);
    void judged(const std::string &name, Client &client, int answer, PairTime now);
    void advance_master(const std::string &name, Client &client);
    void advance_standby(const std::string &name, Client &client, PairTime now);
    void contribute(const std::string &name, Client &client, PairTime now);
    void end_contribution(const std::string &name, Client &client);
    void begin_batch(const std::string &name, Client &client, std::uint32_t batch);
    void merge_into(const std::string &name, Client &client, Bytes &message);
    void merge_leftovers(const std::string &name, Client &client);
    void give_to_client(const std::string &name, Client &client, Bytes data);
    int feed(const std::string &name, Client &client, std::span<const std::byte> message);
    void end_exchange(Client &client);
    void compare_notes(PairTime now);

    PairHost &host_;
    PairOutbox &outbox_;
    Situation situation_;
    bool congested_ = false;
    std::uint32_t batches_ = 0;
    std::optional<PairTime> at_odds_since_;
    std::map<std::string, Client> clients_;
};

} // namespace platform
