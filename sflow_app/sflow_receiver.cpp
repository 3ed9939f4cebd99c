// Receivers: encodes flow and counters samples into the datagram of the collector that takes them, and sends
// it.
//
// Runs on whichever thread has a sample or a reason to flush: the receive thread (flow samples), the
// dispatcher (counters samples), the one-second timer and the CLI thread. Every path into it holds
// `config_lock`, for writing but for counters samples and the running-configuration pass, which take
// `sflow_receiver_lock` besides. Never allocates, never queues, never retries a datagram.
#include "sflow_receiver.h"

#include "sflow_agent.h"
#include "sflow_dbg.h"
#include "sflow_rdnd.h"
#include "sflow_receiver_internal.h"
#include "sflow_v5.h"
#include "sflow_wire.h"

#include "platform/lsm.h"

#include <algorithm>
#include <cstring>

u_int32_t sflow_unkown_flow_seqno = 1;

sflow_mutex_t sflow_receiver_lock = {.mutex = PTHREAD_MUTEX_INITIALIZER};

static_assert(sizeof(sflreceiver_t::data) == SFLOW_DATAGRAM_BYTES);

void sflow_receiver_enter() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    pthread_mutex_lock(&sflow_receiver_lock.mutex);
}

void sflow_receiver_leave() SFLOW_NO_THREAD_SAFETY_ANALYSIS
{
    pthread_mutex_unlock(&sflow_receiver_lock.mutex);
}

// ---- The datagram under construction ----------------------------------------------------------------------

static u_int32_t datagram_header_len()
{
    sflow_config_held();
    return sflow_agent.agent_ip.type == SFLOW_ADDRESS_TYPE_IPV4 ? SFLOW_DATAGRAM_HEADER_LEN_V4
                                                                : SFLOW_DATAGRAM_HEADER_LEN_V6;
}

static void set_pktlen(sflreceiver_t *receiver, u_int32_t pktlen)
{
    receiver->pktlen = pktlen;
    receiver->datap = receiver->data + pktlen / sizeof(receiver->data[0]);
}

/// Forgets the samples of the current datagram; their bytes stay in the buffer until something is written
/// over them.
static void start_next_datagram(sflreceiver_t *receiver)
{
    set_pktlen(receiver, datagram_header_len());
    receiver->flow_sample_num = 0;
    receiver->counter_sample_num = 0;
}

static sflreceiver_t *enabled_receiver(u_int32_t cid)
{
    return sflow_is_enable_receiver(cid) ? sflow_receiver_get_receiver(cid) : nullptr;
}

void sflow_receiver_init()
{
    for (u_int32_t cid = 1; cid <= SFLOW_RECEIVER_NUM; cid++) {
        sflreceiver_t *receiver = sflow_receiver_get_receiver(cid);
        std::memset(receiver, 0, sizeof(*receiver));
        receiver->cid = cid;
        receiver->maxdatagramsize = SFLOW_DEFAULT_DATAGRAM_SIZE;
        receiver->version = SFLOW_VERSION_5;
        sflow_init_socket_id(receiver);
    }
}

sflreceiver_t *sflow_receiver_get_receiver(u_int32_t cid)
{
    return &sflow_agent.receivers[cid - 1];
}

sflreceiver_t *sflow_receiver_get_enable_receiver()
{
    for (u_int32_t cid = 1; cid <= SFLOW_RECEIVER_NUM; cid++) {
        if (sflreceiver_t *receiver = enabled_receiver(cid); receiver != nullptr)
            return receiver;
    }
    return nullptr;
}

// The range is checked here because ids that the sampling service names come this way before anything else
// does.
bool sflow_is_enable_receiver(u_int32_t cid)
{
    return cid >= 1 && cid <= SFLOW_RECEIVER_NUM && sflow_receiver_get_receiver(cid)->is_enable;
}

void sflow_receiver_reset_buf(sflreceiver_t *receiver)
{
    sflow_config_held();
    if (sflow_agent.agent_ip.type == SFLOW_ADDRESS_INVALID)
        return;
    std::memset(receiver->data, 0, sizeof(receiver->data));
    receiver->seqno = 1;
    set_pktlen(receiver, datagram_header_len());
}

void sflow_receiver_reset_all_buf()
{
    for (u_int32_t cid = 1; cid <= SFLOW_RECEIVER_NUM; cid++) {
        if (sflreceiver_t *receiver = enabled_receiver(cid); receiver != nullptr)
            sflow_receiver_reset_buf(receiver);
    }
}

/// Sends the current datagram when a sample of `size` bytes would make it too long; false when that failed
/// and the sample must be dropped. A sample larger than the maximum goes into a datagram of its own.
static bool make_room(sflreceiver_t *receiver, u_int32_t size)
{
    const u_int32_t limit = std::min(receiver->maxdatagramsize, SFLOW_DATAGRAM_BYTES);
    return receiver->pktlen + size <= limit || sflow_receiver_send_sample(receiver) == 0;
}

static sflow_wire_t begin_sample(sflreceiver_t *receiver)
{
    return sflow_wire_begin(receiver->datap, SFLOW_DATAGRAM_BYTES - receiver->pktlen);
}

/// Makes the sample part of the datagram; false, with the datagram as it was, when the buffer could not hold
/// it.
static bool commit_sample(sflreceiver_t *receiver, const sflow_wire_t &wire, u_int32_t size)
{
    if (wire.overflow)
        return false;
    set_pktlen(receiver, receiver->pktlen + size);
    return true;
}

static void write_tag(sflow_wire_t *wire, u_int32_t tag, u_int32_t len)
{
    sflow_wire_u32(wire, tag);
    sflow_wire_u32(wire, len);
}

// ---- Flow samples -----------------------------------------------------------------------------------------

u_int32_t sflow_receiver_cal_flowsample_size(u_int32_t header_len)
{
    return SFLOW_FLOW_SAMPLE_HEADER_LEN + SFLOW_TAG_LEN + SFLOW_EX_SWITCH_LEN + SFLOW_TAG_LEN +
           SFLOW_RAW_HEADER_FIELDS_LEN + header_len;
}

static u_int64_t round_up_to_word(u_int64_t len)
{
    return (len + 3) & ~u_int64_t{3};
}

namespace
{

/// Sequence number and sample pool of the next flow sample of a data source.
struct flow_source_t {
    u_int32_t *seqno;
    u_int32_t pool;
};

} // namespace

static void write_flow_header(sflow_wire_t *wire, u_int32_t size, const flow_source_t &source,
                              const sflow_flow_info_t &info)
{
    sflow_config_held();
    write_tag(wire, SFLTAG_FLOW_SAMPLE_EXPANDED, size - SFLOW_TAG_LEN);
    sflow_wire_u32(wire, *source.seqno);
    sflow_wire_u32(wire, 0); // source id type ifIndex
    sflow_wire_u32(wire, info.source_id);
    sflow_wire_u32(wire, sflow_agent.g_config.samplingrate);
    sflow_wire_u32(wire, source.pool);
    sflow_wire_u32(wire, info.drops_num);
    sflow_wire_u32(wire, 0); // input format: value is an ifIndex
    sflow_wire_u32(wire, info.ingress_ifx);
    sflow_wire_u32(wire, 0); // output format: value is an ifIndex
    sflow_wire_u32(wire, info.egress_ifx);
    sflow_wire_u32(wire, 2); // number of flow records
}

static void write_extended_switch(sflow_wire_t *wire, const sflow_flow_info_t &info)
{
    write_tag(wire, SFLTAG_FLOW_EX_SWITCH, SFLOW_EX_SWITCH_LEN);
    sflow_wire_u32(wire, info.src_vlan);
    sflow_wire_u32(wire, info.src_priority);
    sflow_wire_u32(wire, info.dest_vlan);
    sflow_wire_u32(wire, info.dest_prority);
}

/// The header length on the wire is the padded one, on purpose; the pad bytes stay as the buffer has them.
static void write_raw_header(sflow_wire_t *wire, const char *buf, u_int32_t copied, u_int32_t padded,
                             const sflow_flow_info_t &info)
{
    write_tag(wire, SFLTAG_FLOW_RAW_HEADER, SFLOW_RAW_HEADER_FIELDS_LEN + padded);
    sflow_wire_u32(wire, SFLHEADER_ETHERNET_ISO8023);
    sflow_wire_u32(wire, info.frame_len);
    sflow_wire_u32(wire, info.strip_len);
    sflow_wire_u32(wire, padded);
    sflow_wire_bytes(wire, buf, copied);
    sflow_wire_take(wire, padded - copied);
}

static void drop_invalid_flow_sample(int buf_len)
{
    sflow_count(sflow_statis.sflow_drop_invalid_num);
    SFLOW_LOG_EXPT("[SFLOW-EXPT]%s drop sample, header len:%d\n", "sflow_receiver_write_flowsample", buf_len);
}

void sflow_receiver_write_flowsample(const char *buf, int buf_len, sflow_flow_info_t info,
                                     sflow_intf_config_t *intf)
{
    sflow_config_held();
    sflreceiver_t *receiver =
        intf != nullptr ? enabled_receiver(intf->fid) : sflow_receiver_get_enable_receiver();
    if (receiver == nullptr)
        return;
    if (buf_len < 0) {
        drop_invalid_flow_sample(buf_len);
        return;
    }

    // 64 bits, so that rounding up cannot wrap; both values are at most `buf_len` rounded up.
    const u_int64_t most = round_up_to_word(sflow_agent.g_config.maxhlen);
    const u_int32_t copied = static_cast<u_int32_t>(std::min(static_cast<u_int64_t>(buf_len), most));
    const u_int32_t padded = static_cast<u_int32_t>(round_up_to_word(copied));
    SFLOW_LOG_EXPT("[SFLOW-EXPT]sflow_receiver_write_flowsample header len:%d\n", static_cast<int>(copied));

    const u_int32_t size = sflow_receiver_cal_flowsample_size(padded);
    if (!make_room(receiver, size))
        return;

    const flow_source_t source = {
        .seqno = intf != nullptr ? &intf->flow_seqno : &sflow_unkown_flow_seqno,
        .pool = intf != nullptr ? intf->total_pkt : info.sample_pool,
    };
    sflow_wire_t wire = begin_sample(receiver);
    write_flow_header(&wire, size, source, info);
    write_extended_switch(&wire, info);
    write_raw_header(&wire, buf, copied, padded, info);

    if (!commit_sample(receiver, wire, size)) {
        drop_invalid_flow_sample(buf_len);
        return;
    }
    ++*source.seqno;
    if (intf != nullptr)
        intf->total_pkt += sflow_agent.g_config.samplingrate;
    receiver->flow_sample_num++;
}

// ---- Counters samples -------------------------------------------------------------------------------------

u_int32_t sflow_receiver_cal_countersample_size()
{
    return SFLOW_COUNTERS_SAMPLE_HEADER_LEN + SFLOW_TAG_LEN + SFLOW_GENERIC_COUNTERS_LEN + SFLOW_TAG_LEN +
           SFLOW_ETHERNET_COUNTERS_LEN;
}

/// ifStatus: bit 0 administratively up, bit 1 line up.
static u_int32_t interface_status(const lsm_intfcb_t *intfcb)
{
    if (intfcb->admin_state != INTF_ADMIN_UP)
        return 0;
    switch (intfcb->line_state) {
    case INTF_DOWN:
        return 1;
    case INTF_UP:
        return 3;
    }
    return 0;
}

/// ifDirection: 0 unknown, 1 full duplex, 2 half duplex.
static u_int32_t interface_direction(lsm_duplex_t duplex)
{
    switch (duplex) {
    case LSM_DUPLEX_FULL:
        return 1;
    case LSM_DUPLEX_HALF:
        return 2;
    case LSM_DUPLEX_AUTO:
        break;
    }
    return 0;
}

void sflow_receiver_get_interface_info(IFINDEX ifx, u_int64_t *speed, u_int32_t *direct, u_int32_t *status)
{
    constexpr u_int64_t bits_per_megabit = 1000000;

    *speed = 0;
    *direct = 0;
    *status = 0;
    const lsm_intfcb_t *intfcb = lsm_get_intfcb(ifx);
    if (intfcb == nullptr) {
        SFLOW_LOG_EXPT("[SFLOW-EXPT]%s get intfcb fail:%d.\n", "sflow_receiver_get_interface_info",
                       static_cast<int>(ifx));
        return;
    }
    *status = interface_status(intfcb);
    SFLOW_LOG_EXPT("[SFLOW-EXPT]intf admin status :%d\n", static_cast<int>(*status));
    if (intfcb->eth_info != nullptr) {
        *direct = interface_direction(intfcb->eth_info->duplex);
        SFLOW_LOG_EXPT("[SFLOW-EXPT]intf duplex :%d\n", static_cast<int>(*direct));
        *speed = intfcb->eth_info->speed * bits_per_megabit;
        SFLOW_LOG_EXPT("[SFLOW-EXPT]intf speed:%d\n", static_cast<int>(intfcb->eth_info->speed));
    }
    lsm_put_intfcb(intfcb);
}

static void write_counters_header(sflow_wire_t *wire, u_int32_t size, const sflow_intf_config_t *intf)
{
    write_tag(wire, SFLTAG_COUNTERS_SAMPLE, size - SFLOW_TAG_LEN);
    sflow_wire_u32(wire, intf->counter_seqno);
    sflow_wire_u32(wire, intf->ifx); // source id: class 0 (ifIndex) in the top byte
    sflow_wire_u32(wire, 2);         // number of counter records
}

static void write_generic_counters(sflow_wire_t *wire, const sflow_generic_counter_t &generic, IFINDEX ifx)
{
    u_int64_t speed;
    u_int32_t direct;
    u_int32_t status;
    sflow_receiver_get_interface_info(ifx, &speed, &direct, &status);

    write_tag(wire, SFLTAG_COUNTERS_GENERIC, SFLOW_GENERIC_COUNTERS_LEN);
    sflow_wire_u32(wire, ifx);
    sflow_wire_u32(wire, SFLOW_IF_TYPE_ETHERNET);
    sflow_wire_u64(wire, speed);
    sflow_wire_u32(wire, direct);
    sflow_wire_u32(wire, status);
    sflow_wire_u64(wire, generic.ifInOctets);
    sflow_wire_u32(wire, generic.ifInUcastPkts);
    sflow_wire_u32(wire, generic.ifInMulticastPkts);
    sflow_wire_u32(wire, generic.ifInBroadcastPkts);
    sflow_wire_u32(wire, generic.ifInDiscards);
    sflow_wire_u32(wire, generic.ifInErrors);
    sflow_wire_u32(wire, generic.ifInUnknownProtos);
    sflow_wire_u64(wire, generic.ifOutOctets);
    sflow_wire_u32(wire, generic.ifOutUcastPkts);
    sflow_wire_u32(wire, generic.ifOutMulticastPkts);
    sflow_wire_u32(wire, generic.ifOutBroadcastPkts);
    sflow_wire_u32(wire, generic.ifOutDiscards);
    sflow_wire_u32(wire, generic.ifOutErrors);
    sflow_wire_u32(wire, SFLOW_IF_PROMISCUOUS_FALSE);
}

static void write_ether_counters(sflow_wire_t *wire, const sflow_ether_counter_t &ether)
{
    write_tag(wire, SFLTAG_COUNTERS_ETHERNET, SFLOW_ETHERNET_COUNTERS_LEN);
    sflow_wire_u32(wire, ether.dot3StatsAlignmentErrors);
    sflow_wire_u32(wire, ether.dot3StatsFCSErrors);
    sflow_wire_u32(wire, ether.dot3StatsSingleCollisionFrames);
    sflow_wire_u32(wire, ether.dot3StatsMultipleCollisionFrames);
    sflow_wire_u32(wire, ether.dot3StatsSQETestErrors);
    sflow_wire_u32(wire, ether.dot3StatsDeferredTransmissions);
    sflow_wire_u32(wire, ether.dot3StatsLateCollisions);
    sflow_wire_u32(wire, ether.dot3StatsExcessiveCollisions);
    sflow_wire_u32(wire, ether.dot3StatsInternalMacTransmitErrors);
    sflow_wire_u32(wire, ether.dot3StatsCarrierSenseErrors);
    sflow_wire_u32(wire, ether.dot3StatsFrameTooLongs);
    sflow_wire_u32(wire, ether.dot3StatsInternalMacReceiveErrors);
    sflow_wire_u32(wire, ether.dot3StatsSymbolErrors);
}

static void write_countersample(const sflow_msg_counter_t *msg, sflow_intf_config_t *intf)
    SFLOW_REQUIRES(sflow_receiver_lock)
{
    sflreceiver_t *receiver = enabled_receiver(sflow_load(intf->cid));
    if (receiver == nullptr)
        return;
    const u_int32_t size = sflow_receiver_cal_countersample_size();
    if (!make_room(receiver, size))
        return;

    sflow_wire_t wire = begin_sample(receiver);
    write_counters_header(&wire, size, intf);
    write_generic_counters(&wire, msg->generic_counter, intf->ifx);
    write_ether_counters(&wire, msg->ether_counter);

    if (!commit_sample(receiver, wire, size))
        return;
    intf->counter_seqno++;
    receiver->counter_sample_num++;
}

void sflow_receiver_write_countersample(const sflow_msg_counter_t *msg, sflow_intf_config_t *intf)
{
    sflow_receiver_enter();
    write_countersample(msg, intf);
    sflow_receiver_leave();
}

// ---- Sending ----------------------------------------------------------------------------------------------

static void write_datagram_header(sflreceiver_t *receiver)
{
    sflow_config_held();
    const sflow_agent_address_t *agent = &sflow_agent.agent_ip;
    const u_int64_t uptime_ms = sflow_uptime_sec() * 1000;

    sflow_wire_t wire = sflow_wire_begin(receiver->data, datagram_header_len());
    sflow_wire_u32(&wire, SFLOW_VERSION_5);
    sflow_wire_u32(&wire, agent->type);
    sflow_wire_bytes(&wire, &agent->address, agent->type == SFLOW_ADDRESS_TYPE_IPV4 ? 4 : 16);
    sflow_wire_u32(&wire, 0); // sub-agent id
    sflow_wire_u32(&wire, receiver->seqno);
    sflow_wire_u32(&wire, static_cast<u_int32_t>(uptime_ms)); // wraps after 49.7 days, as the format has it
    sflow_wire_u32(&wire, receiver->counter_sample_num + receiver->flow_sample_num);
}

static void send_msg(const sflreceiver_t *receiver, sflow_sockaddr_t *collector, socklen_t collector_len)
{
    iovec datagram = {.iov_base = const_cast<u_int32_t *>(receiver->data), .iov_len = receiver->pktlen};
    msghdr msg = {};
    msg.msg_name = collector;
    msg.msg_namelen = collector_len;
    msg.msg_iov = &datagram;
    msg.msg_iovlen = 1;

    if (sendmsg(receiver->sd, &msg, 0) == static_cast<ssize_t>(receiver->pktlen)) {
        sflow_count(sflow_statis.sflow_export_pkt_num);
        sflow_count(sflow_statis.sflow_export_counter_num, receiver->counter_sample_num);
        sflow_count(sflow_statis.sflow_export_flow_num, receiver->flow_sample_num);
    } else {
        sflow_count(sflow_statis.sflow_export_fail_num);
        sflow_count(sflow_statis.sflow_export_spl_fail_num,
                    receiver->flow_sample_num + receiver->counter_sample_num);
    }
}

static void sflow_receiver_send_ipv4_msg(const sflreceiver_t *receiver)
{
    sflow_sockaddr_t collector = sflow_ipv4_sockaddr(&receiver->address.address, receiver->collector_port);
    send_msg(receiver, &collector, sizeof(collector.v4));
}

static void sflow_receiver_send_ipv6_msg(const sflreceiver_t *receiver)
{
    sflow_sockaddr_t collector = sflow_ipv6_sockaddr(&receiver->address.address, receiver->collector_port);
    send_msg(receiver, &collector, sizeof(collector.v6));
}

int sflow_receiver_send_sample(sflreceiver_t *receiver)
{
    if (receiver->flow_sample_num == 0 && receiver->counter_sample_num == 0)
        return 0;
    if (sflow_rdnd_is_passive()) {
        start_next_datagram(receiver);
        return 0;
    }

    const bool is_ipv4 = receiver->address.type == SFLOW_ADDRESS_TYPE_IPV4;
    const int bound =
        is_ipv4 ? sflow_receiver_bind_ipv4_socket(receiver) : sflow_receiver_bind_ipv6_socket(receiver);
    if (bound != 0) {
        start_next_datagram(receiver);
        return -1;
    }
    write_datagram_header(receiver);
    if (is_ipv4)
        sflow_receiver_send_ipv4_msg(receiver);
    else
        sflow_receiver_send_ipv6_msg(receiver);
    receiver->seqno++;
    start_next_datagram(receiver);
    return 0;
}

void sflow_receiver_send_all_sample(sflreceiver_t *receiver)
{
    static_cast<void>(sflow_receiver_send_sample(receiver));
}

void sflow_receiver_send_all_receiver_sample()
{
    for (u_int32_t cid = 1; cid <= SFLOW_RECEIVER_NUM; cid++) {
        if (sflreceiver_t *receiver = enabled_receiver(cid); receiver != nullptr)
            sflow_receiver_send_all_sample(receiver);
    }
}
