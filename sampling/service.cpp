#include "service.h"

#include <cstring>

namespace sampling
{

namespace
{

// Distinct types of bad records that are logged, so that a mad peer cannot fill the memory.
constexpr std::size_t most_complaints = 256;

/// The list that a request names, for the log; empty when it names none.
std::string acl_text(const sflow_spl_t &request)
{
    if (!names_acl(request))
        return "";
    return " limited to access list " + std::to_string(request.acl_id) + " \"" +
           std::string(request.acl_name, ::strnlen(request.acl_name, sizeof(request.acl_name))) + "\"";
}

/// The lists of a sampler, for the log.
std::string acl_text(const AclIds &acls)
{
    std::string text;
    for (const std::int32_t id : acls)
        text += id == 0 ? "" : ", access list " + std::to_string(id);
    return text;
}

} // namespace

struct Service::Command {
    std::uint32_t type;
    std::size_t size; ///< bytes of the whole record
    void (Service::*run)(Bytes record);
};

const Service::Command Service::commands[] = {
    {SFLOW_CMD_GET_COUNTER, sizeof(sflow_counter_t), &Service::on_get_counter},
    {SFLOW_CMD_SET_SAMPLING_RATE, sizeof(sflow_spl_t), &Service::on_set_sampling},
    {SFLOW_CMD_IFX_IS_CONF, sizeof(sflow_ifx_is_conf_t), &Service::on_attach_collector},
    {SFLOW_CMD_SAMPLE_HEADER_LEN, sizeof(sflow_sample_header_len_t), &Service::on_header_len},
    {SFLOW_CMD_CONFIG_START, sizeof(sflow_msg_head_t), &Service::on_config_start},
    {SFLOW_CMD_CONFIG_END, sizeof(sflow_msg_head_t), &Service::on_config_end},
    {SFLOW_CMD_CONNECT, sizeof(sflow_msg_head_t), &Service::on_connect_notice},
    {SFLOW_CMD_DEBUG, sizeof(sflow_debug_t), &Service::on_debug},
};

Service::Service(EventLoop &loop, Log &log, LinkTable &links, CounterSource &counters,
                 const CounterOptions &counter_options, const std::string &socket_path,
                 const std::string &acl_directory, const BackendMaker &make_backend)
    : loop_(loop), log_(log), links_(links), connection_(loop, log, socket_path, *this),
      backend_(make_backend(*this)), acls_(loop, log, acl_directory, *backend_), table_(*backend_, acls_),
      counters_(
          loop, log, counters, counter_options, [this](IFINDEX ifindex) { return links_.find(ifindex); },
          [this](IFINDEX ifindex) { return links_.contains(ifindex); },
          [this](IFINDEX ifindex) { return backend_->own_counters(ifindex); },
          [this](const sflow_counter_ret_t &record) { connection_.send_answer(bytes_of(record)); })
{
    links_.on_removal([this](IFINDEX ifindex) { table_.forget_interface(ifindex); });
    links_.on_farewell(
        [this](IFINDEX ifindex, const rtnl_link_stats64 *farewell) { counters_.depart(ifindex, farewell); });
}

Service::~Service()
{
    links_.on_removal({});
    links_.on_farewell({});
    loop_.cancel(expiry_);
}

bool Service::take(const Sample &sample)
{
    if (!connection_.connected())
        return true; // nobody to tell; the samplers are on their way out
    encode_sample(sample, connection_.next_sample());
    return connection_.commit_sample();
}

void Service::drained()
{
    connection_.flush_samples();
}

void Service::on_writable()
{
    backend_->resume();
}

void Service::on_disconnect()
{
    counters_.clear();
    restarts_.clear();
    table_.remove_all();
    complained_.clear();
    backend_->resume();
}

void Service::on_connect(std::uint64_t daemon)
{
    counters_.connected(daemon);
}

void Service::log_once(std::uint32_t type, std::string_view what)
{
    if (complained_.size() < most_complaints && complained_.insert(type).second)
        log_.warning("daemon ", connection_.path(), ": record of type ", type, ": ", what,
                     ", ignored now and from here on without a word");
}

void Service::on_record(const RecordView &record)
{
    for (const Command &command : commands) {
        if (command.type != record.type)
            continue;
        if (command.size == record.bytes.size())
            (this->*command.run)(record.bytes);
        else
            log_once(record.type, "length " + std::to_string(record.bytes.size()) + " instead of " +
                                      std::to_string(command.size));
        return;
    }
    log_once(record.type, "unknown");
}

void Service::on_connect_notice(Bytes)
{
    const sflow_msg_head_t request = head_of<sflow_msg_head_t>(SFLOW_CMD_CONFIG_REQUEST);
    const sflow_hardware_capacity_t capacity = {.head =
                                                    head_of<sflow_hardware_capacity_t>(SFLOW_CMD_HD_CAPACITY),
                                                .sflow_intf_support = backend_->capacity()};
    connection_.send_answer(bytes_of(request));
    connection_.send_answer(bytes_of(capacity));
}

void Service::on_config_start(Bytes)
{
    restarts_.clear();
    table_.pause_all(Clock::now());
    arm_expiry();
}

void Service::on_config_end(Bytes)
{
    log_.info("daemon ", connection_.path(), ": configuration complete: ", table_.rows().size(),
              " samplers, headers of ", table_.header_len(), " bytes");
}

void Service::on_set_sampling(Bytes bytes)
{
    const auto request = decode<sflow_spl_t>(bytes);
    const std::optional<SamplerKey> key = SamplerTable::key_of(*request);
    if (!key || key->hook == Hook::egress) {
        carry_out(*request); // refused, or no matter of lists
        return;
    }
    using Action = RestartPairs::Decision::Action;
    const RestartPairs::Decision decision = restarts_.arrived(*key, *request, Clock::now());
    if (decision.first)
        carry_out(*decision.first);
    if (decision.action == Action::refuse) {
        answer(*request, decision.refusal);
    } else if (decision.action == Action::carry_out) {
        const Answer result = table_.set(*request, Clock::now());
        if (const auto held = restarts_.settled(*key, *request, result, Clock::now()))
            answer(*held, result == Answer::ok ? table_.set(*held, Clock::now()) : result);
        answer(*request, result);
    }
    arm_expiry();
}

void Service::carry_out(const sflow_spl_t &request)
{
    answer(request, table_.set(request, Clock::now()));
}

void Service::answer(const sflow_spl_t &request, Answer answer)
{
    if (answer != Answer::ok)
        log_.warning("interface ", links_.name_of(request.ifx), ": sampling of one in ", request.rate,
                     " in direction ", request.direct, acl_text(request), ": ", answer_text(answer),
                     ", answered with ", static_cast<std::int32_t>(answer));
    connection_.send_answer(bytes_of(answer_to(request, answer)));
}

void Service::on_header_len(Bytes bytes)
{
    const auto request = decode<sflow_sample_header_len_t>(bytes);
    table_.set_header_len(request->header_len);
    if (table_.header_len() != request->header_len)
        log_.warning("sample header length ", request->header_len, ": out of range, ", table_.header_len(),
                     " is used");
}

void Service::on_attach_collector(Bytes bytes)
{
    // Nothing to set up here: samples and counters carry their interface, the daemon finds the collector.
    const auto request = decode<sflow_ifx_is_conf_t>(bytes);
    Answer answer = Answer::ok;
    if (request->flag != SFLOW_CONF_FLAG_FLOW && request->flag != SFLOW_CONF_FLAG_COUNTER)
        answer = Answer::bad_request;
    else if (links_.find(request->ifx) == nullptr)
        answer = Answer::no_interface;
    if (answer != Answer::ok)
        log_.warning("interface ", links_.name_of(request->ifx), ": attachment to collector ", request->cid,
                     ": ", answer_text(answer), ", answered with ", static_cast<std::int32_t>(answer));
    else if (request->flag == SFLOW_CONF_FLAG_COUNTER)
        counters_.reconsider(request->ifx);
    connection_.send_answer(bytes_of(answer_to(*request, answer)));
}

void Service::on_get_counter(Bytes bytes)
{
    counters_.request(*decode<sflow_counter_t>(bytes));
}

void Service::on_debug(Bytes bytes)
{
    const auto request = decode<sflow_debug_t>(bytes);
    switch (request->type) {
    case SFLOW_DEBUG_SHOW_CMD:
        log_commands();
        break;
    case SFLOW_DEBUG_SHOW_INFO:
        log_information();
        break;
    case SFLOW_DEBUG_SWITCH:
        connection_.set_trace(request->flag != 0);
        log_.info("trace: switched ", request->flag != 0 ? "on" : "off");
        break;
    default:
        log_.warning("daemon ", connection_.path(), ": debug request ", request->type, ": unknown, ignored");
        break;
    }
}

void Service::log_commands()
{
    for (const Command &command : commands)
        log_.info("command ", command.type, ": ", record_name(command.type), ", ", command.size, " bytes");
}

void Service::log_information()
{
    log_.info("backend ", backend_->name(), ": capacity ", backend_->capacity(), ", ", backend_->status());
    for (const SamplerTable::Row &row : table_.rows()) {
        const SamplerTotals totals = backend_->totals(row.key);
        log_.info("sampler ", links_.name_of(row.key.ifindex), " ", hook_name(row.key.hook), ": ",
                  row.on ? "on" : "off", ", rate ", row.settings.rate, ", header ", row.settings.header_len,
                  acl_text(row.settings.acls), ", pool ", totals.pool, ", taken ", totals.taken, ", dropped ",
                  totals.dropped);
    }
    acls_.log_lists();
    const Outbox::Statistics &sent = connection_.outbox().statistics();
    log_.info("daemon ", connection_.path(), ": connected, sent ", sent.samples, " samples and ",
              sent.answers, " answers in ", sent.packets, " packets, socket full ", sent.blocked,
              " times, waiting ", connection_.outbox().waiting_answers(), " packets of answers and ",
              counters_.waiting(), " counter requests");
}

void Service::arm_expiry()
{
    // One timer at a time, looked at again when it runs: settings come by the thousand.
    if (expiry_ != 0)
        return;
    expiry_ = loop_.call_after(SamplerTable::linger, [this] {
        expiry_ = 0;
        for (const sflow_spl_t &request : restarts_.overdue(Clock::now()))
            carry_out(request);
        table_.expire(Clock::now());
        if (table_.next_expiry() || !restarts_.idle())
            arm_expiry();
    });
}

} // namespace sampling
