#include "matcher.h"

#include "literals.h"
#include "slots.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cstdio>

namespace cli
{
namespace
{

// Bounds what one word of a line may cost, should a tree run in circles without taking input.
constexpr std::size_t most_steps = 20000;
constexpr std::size_t most_records = 1000;

const struct_common_keyword &keyword_of(const struct_transtion &t)
{
    return *static_cast<const struct_common_keyword *>(t.argument);
}

std::pair<int64_t, int64_t> range_of(const struct_common_number &node, struct_command_data_block &record)
{
    int64_t minimum = node.minimum;
    int64_t maximum = node.maximum;
    if (node.pfn != nullptr)
        node.pfn(&record, &minimum, &maximum);
    return {minimum, maximum};
}

std::string hexadecimal(int64_t number)
{
    std::array<char, 24> text{};
    std::snprintf(text.data(), text.size(), "0x%llx", static_cast<unsigned long long>(number));
    return text.data();
}

bool is_hexadecimal(const struct_common_number &node)
{
    return (node.nFlag & CLI_NUMBER_FLAG_HEX) != 0;
}

/// What help shows for a number of a range.
std::string range_text(const struct_common_number &node, int64_t minimum, int64_t maximum)
{
    const auto text = [&](int64_t number) {
        return is_hexadecimal(node) ? hexadecimal(number) : std::to_string(number);
    };
    return "<" + text(minimum) + "-" + text(maximum) + ">";
}

} // namespace

void Matcher::begin(const transition_t *root, const record_t &start)
{
    records_.assign(1, start);
    records_.front().parser = this;
    positions_.assign(1, {root, 0});
    rest_.reset();
    last_keyword_ = "";
}

// Follows everything that takes no input from positions_, filling waiting_ and ends_ in the order of the graph.
void Matcher::expand()
{
    waiting_.clear();
    ends_.clear();
    seen_.clear();
    open_.assign(positions_.rbegin(), positions_.rend());
    for (std::size_t steps = 0; !open_.empty() && steps < most_steps; ++steps) {
        const Position position = open_.back();
        open_.pop_back();
        if (position.t == nullptr || position.t->pfn == nullptr)
            continue;
        const bool again = std::any_of(seen_.begin(), seen_.end(), [&](const Position &p) {
            return p.t == position.t && p.record == position.record;
        });
        if (again)
            continue;
        seen_.push_back(position);
        current_ = position.record;
        if (position.t->pfn(&records_[current_], position.t) != 0)
            break;
    }
}

int Matcher::go_on(const transition_t *first, const transition_t *second)
{
    open_.push_back({second, current_});
    open_.push_back({first, current_});
    return 0;
}

std::size_t Matcher::copy_record(std::size_t from)
{
    records_.push_back(records_[from]);
    return records_.size() - 1;
}

int Matcher::argument(record_t & /*record*/, const transition_t &t, Argument kind)
{
    if (kind != Argument::keyword || permitted(keyword_of(t)))
        waiting_.push_back({&t, current_, kind});
    return go_on(nullptr, t.alternate);
}

int Matcher::set(record_t &record, const transition_t &t, const struct_set_cdb_var &node)
{
    if (records_.size() >= most_records || !is_int_slot(node.nVarPos))
        return -1;
    open_.push_back({t.alternate, current_});
    int64_t value = 0;
    std::memcpy(&value, &node.value, sizeof value);
    int64_t present = 0;
    std::memcpy(&present, slot_bytes(record, node.nVarPos), sizeof present);
    std::size_t with_value = current_;
    if (present != value) {
        with_value = copy_record(current_);
        store_int(records_[with_value], node.nVarPos, value);
    }
    open_.push_back({t.accept, with_value});
    return 0;
}

int Matcher::test(record_t &record, const transition_t & /*t*/, const struct_test_expression &node)
{
    const bool holds = guards_ == Guards::passed || node.ptestfun(&record) != 0;
    return go_on(holds ? node.ptrue : node.pfalse, nullptr);
}

int Matcher::c2p(record_t & /*record*/, const transition_t &t, const struct_c2p & /*node*/)
{
    return go_on(t.accept, t.alternate);
}

int Matcher::eol(record_t & /*record*/, const transition_t &t, const struct_eol &node)
{
    ends_.push_back({&node, current_});
    return go_on(nullptr, t.alternate);
}

int Matcher::noprefix(record_t &record, const transition_t &t)
{
    return go_on(record.flag_nd_prefix != 0 ? t.accept : t.alternate, nullptr);
}

int Matcher::either(record_t & /*record*/, const transition_t &t)
{
    return go_on(t.accept, t.alternate);
}

int Matcher::append_point(record_t & /*record*/, const transition_t &t)
{
    return go_on(t.accept, t.alternate);
}

int Matcher::attach(record_t & /*record*/, const transition_t &t, const AttachNode &node)
{
    open_.push_back({t.alternate, current_});
    for (std::size_t i = node.count; i-- > 0;) {
        const auto trees = grammar_.at(node.points[i]);
        for (auto tree = trees.rbegin(); tree != trees.rend(); ++tree)
            open_.push_back({tree->root, current_});
    }
    return 0;
}

bool Matcher::permitted(const struct_common_keyword &node) const
{
    const bool user = (node.exec_priv & 0x08) != 0 && (node.exec_priv & 0x10) == 0;
    return user || level_ == Level::privileged;
}

Matcher::Fit Matcher::fit(const struct_common_keyword &node, std::string_view word)
{
    if (same_word(word, node.pname))
        return Fit::whole;
    if (word.size() < node.mini_match || !is_prefix(word, node.pname))
        return Fit::none;
    return (node.flag & CLI_KEYWORD_FLAG_HIDDEN) != 0 ? Fit::hidden_abbreviation : Fit::abbreviation;
}

void Matcher::accept(const Waiting &node, std::size_t record)
{
    positions_.push_back({node.t->accept, record});
}

bool Matcher::take_number(const Waiting &node, std::string_view word)
{
    const auto &number = *static_cast<const struct_common_number *>(node.t->argument);
    const std::optional<int64_t> value = parse_number(word, is_hexadecimal(number));
    const auto [minimum, maximum] = range_of(number, records_[node.record]);
    if (!value || *value < minimum || *value > maximum)
        return false;
    const std::size_t record = copy_record(node.record);
    store_int(records_[record], number.nVarPos, *value);
    accept(node, record);
    return true;
}

bool Matcher::take_address(const Waiting &node, std::string_view word)
{
    const auto &address = *static_cast<const struct_common_ipaddr *>(node.t->argument);
    const bool v6 = node.kind == Argument::ipv6;
    std::array<u_int8_t, 16> bytes{};
    if (inet_pton(v6 ? AF_INET6 : AF_INET, std::string(word).c_str(), bytes.data()) != 1)
        return false;
    const std::size_t record = copy_record(node.record);
    store_address(records_[record], address.nVarPos, bytes);
    if (address.nFlagVarPos != 0)
        store_int(records_[record], address.nFlagVarPos, static_cast<int64_t>(address.nValue));
    accept(node, record);
    return true;
}

bool Matcher::take_prefix(const Waiting &node, std::string_view word)
{
    const auto &argument = *static_cast<const struct_common_prefix *>(node.t->argument);
    const std::optional<Prefix> prefix = parse_prefix(word, argument.nFlag == CLI_IPV6_FLAG);
    if (!prefix)
        return false;
    const std::size_t record = copy_record(node.record);
    store_address(records_[record], argument.nVarPos, prefix->address);
    store_int(records_[record], argument.nLenPos, prefix->length);
    accept(node, record);
    return true;
}

bool Matcher::take_mac(const Waiting &node, std::string_view word)
{
    const auto address = parse_mac(word);
    if (!address)
        return false;
    const std::size_t record = copy_record(node.record);
    store_address(records_[record], static_cast<const struct_common_mac *>(node.t->argument)->nVarPos,
                  *address);
    accept(node, record);
    return true;
}

// Stores the words that the text argument in rest_ has taken; false when they are too long.
bool Matcher::take_text(std::span<const Word> words)
{
    std::string text;
    for (const Word &word : words)
        text.append(text.empty() ? "" : " ").append(word.text);
    if (text.size() >= CLI_STRING_LEN)
        return false;
    const auto &argument = *static_cast<const struct_common_text *>(rest_->t->argument);
    for (Position &position : positions_) {
        if (position.t == rest_->t->accept)
            store_string(records_[position.record], argument.nVarPos, text);
    }
    return true;
}

bool Matcher::take_interface(const Waiting &node, std::string_view word)
{
    const auto &interface = *static_cast<const struct_common_interface *>(node.t->argument);
    const u_int32_t ifindex = interfaces_.index_of(word);
    const u_int64_t kinds = ifindex == 0 ? 0 : interfaces_.kinds_of(ifindex);
    if ((kinds & interface.nType) == 0)
        return false;
    const std::size_t record = copy_record(node.record);
    store_int(records_[record], interface.nVarPos, ifindex);
    if (interface.nFlagPos != 0)
        store_int(records_[record], interface.nFlagPos, 1);
    if (interface.nTypePos != 0)
        store_int(records_[record], interface.nTypePos, static_cast<int64_t>(kinds));
    accept(node, record);
    return true;
}

// Arguments other than keywords.
bool Matcher::take(const Waiting &node, std::string_view word)
{
    switch (node.kind) {
    case Argument::number:
        return take_number(node, word);
    case Argument::ipv4:
    case Argument::ipv6:
        return take_address(node, word);
    case Argument::prefix:
        return take_prefix(node, word);
    case Argument::mac:
        return take_mac(node, word);
    case Argument::interface:
        return take_interface(node, word);
    case Argument::string: {
        if (word.size() >= CLI_STRING_LEN)
            return false;
        const std::size_t record = copy_record(node.record);
        store_string(records_[record], static_cast<const struct_common_string *>(node.t->argument)->nVarPos,
                     word);
        accept(node, record);
        return true;
    }
    case Argument::text:
        accept(node, copy_record(node.record));
        rest_ = node;
        return true;
    case Argument::rest:
        accept(node, node.record);
        rest_ = node;
        return true;
    case Argument::keyword:
        break;
    }
    return false;
}

// Moves every position across `word`. Of the keywords only those stay that fit best: the whole word, else an
// abbreviation of one listed keyword, else the first hidden one.
Matcher::Advance Matcher::advance(std::string_view word)
{
    positions_.clear();
    Fit best = Fit::none;
    for (const Waiting &node : waiting_)
        if (node.kind == Argument::keyword)
            best = std::max(best, fit(keyword_of(*node.t), word));

    const char *chosen = nullptr;
    for (const Waiting &node : waiting_) {
        if (node.kind != Argument::keyword) {
            // What is a keyword here is no free text: `interface range` alone is incomplete.
            if (node.kind != Argument::string || best != Fit::whole)
                take(node, word);
            continue;
        }
        const struct_common_keyword &keyword = keyword_of(*node.t);
        if (best == Fit::none || fit(keyword, word) != best)
            continue;
        if (chosen != nullptr && !same_word(chosen, keyword.pname)) {
            if (best == Fit::abbreviation)
                return Advance::ambiguous;
            continue;
        }
        chosen = keyword.pname;
        std::size_t record = node.record;
        if ((keyword.flag & CLI_KEYWORD_FLAG_VALUE) != 0) {
            int64_t value = 0;
            std::memcpy(&value, &keyword.value, sizeof value);
            record = copy_record(record);
            store_int(records_[record], keyword.var_pos, value);
        }
        accept(node, record);
    }
    last_keyword_ = chosen == nullptr ? "" : chosen;
    return positions_.empty() ? Advance::stuck : Advance::moved;
}

Match Matcher::match(const struct_transtion *root, const struct_command_data_block &start,
                     std::span<const Word> words)
{
    Match result;
    begin(root, start);
    for (std::size_t i = 0; i < words.size() && !rest_; ++i) {
        expand();
        const Advance step = advance(words[i].text);
        if (step != Advance::moved) {
            result.word = i;
            result.result = step == Advance::ambiguous ? Match::Result::ambiguous : Match::Result::invalid;
            return result;
        }
        if (rest_ && rest_->kind == Argument::text && !take_text(words.subspan(i))) {
            result.word = i;
            return result;
        }
    }
    expand();
    if (ends_.empty()) {
        // Nothing can follow either: what stands there is not the beginning of a command.
        result.result = waiting_.empty() ? Match::Result::invalid : Match::Result::incomplete;
        result.word = words.empty() ? 0 : words.size() - 1;
        return result;
    }
    const End &end = ends_.front();
    result.result = Match::Result::run;
    result.handler = end.node->exec_func;
    result.record = records_[end.record];
    result.record.parser = nullptr;
    if (end.node->subcmd != 0)
        result.record.flag_subcmd = static_cast<int64_t>(end.node->subcmd);
    return result;
}

void Matcher::offer(std::vector<Choice> &list, const Waiting &node, std::string_view partial) const
{
    const void *const argument = node.t->argument;
    switch (node.kind) {
    case Argument::keyword: {
        const struct_common_keyword &keyword = keyword_of(*node.t);
        if ((keyword.flag & CLI_KEYWORD_FLAG_HIDDEN) == 0 && is_prefix(partial, keyword.pname))
            list.push_back({keyword.pname, keyword.phelp, true});
        break;
    }
    case Argument::number: {
        const auto &number = *static_cast<const struct_common_number *>(argument);
        struct_command_data_block record = records_[node.record];
        const auto [minimum, maximum] = range_of(number, record);
        list.push_back({range_text(number, minimum, maximum), number.pHelp, false});
        break;
    }
    case Argument::ipv4:
        list.push_back({"A.B.C.D", static_cast<const struct_common_ipaddr *>(argument)->pHelp, false});
        break;
    case Argument::ipv6:
        list.push_back({"X:X::X:X", static_cast<const struct_common_ipaddr *>(argument)->pHelp, false});
        break;
    case Argument::prefix: {
        const auto &prefix = *static_cast<const struct_common_prefix *>(argument);
        list.push_back({prefix.nFlag == CLI_IPV6_FLAG ? "X:X::X:X/LEN" : "A.B.C.D/LEN", prefix.pHelp, false});
        break;
    }
    case Argument::mac:
        list.push_back({"H:H:H:H:H:H", static_cast<const struct_common_mac *>(argument)->pHelp, false});
        break;
    case Argument::text:
        list.push_back({"LINE", static_cast<const struct_common_text *>(argument)->pHelp, false});
        break;
    case Argument::string: {
        // Without a text it only catches what a node before it does not know.
        const auto &string = *static_cast<const struct_common_string *>(argument);
        if (string.pHelp[0] == '\0')
            break;
        list.push_back({"WORD", string.pHelp, false});
        for (const std::string &name : interfaces_.named_behind(last_keyword_))
            if (name.starts_with(partial))
                list.push_back({name, string.pHelp, true});
        break;
    }
    case Argument::interface: {
        const auto &interface = *static_cast<const struct_common_interface *>(argument);
        const char *const help = interface.phelp == nullptr ? "Interface name" : interface.phelp;
        list.push_back({"IFNAME", help, false});
        for (const std::string &name : interfaces_.names())
            if (name.starts_with(partial) &&
                (interfaces_.kinds_of(interfaces_.index_of(name)) & interface.nType) != 0)
                list.push_back({name, help, true});
        break;
    }
    case Argument::rest: {
        const auto &rest = *static_cast<const RestNode *>(argument);
        list.push_back({rest.placeholder, rest.help, false});
        const std::string_view before = partial.substr(0, partial.find_last_of(',') + 1);
        for (const std::string &name : interfaces_.names())
            if (name.starts_with(partial.substr(before.size())))
                list.push_back({std::string(before) + name, rest.help, true});
        break;
    }
    }
}

std::vector<Choice> Matcher::choices(const struct_transtion *root, const struct_command_data_block &start,
                                     std::span<const Word> words, std::string_view partial)
{
    begin(root, start);
    for (const Word &word : words) {
        if (rest_)
            break;
        expand();
        if (advance(word.text) != Advance::moved)
            return {};
    }
    std::vector<Choice> list;
    if (rest_) // it takes the next word too
        offer(list, *rest_, partial);
    expand();
    for (const Waiting &node : waiting_)
        offer(list, node, partial);
    if (partial.empty() && !ends_.empty())
        list.push_back({"<cr>", "", false});
    std::vector<Choice> unique;
    for (Choice &choice : list)
        if (std::none_of(unique.begin(), unique.end(),
                         [&](const Choice &c) { return c.text == choice.text; }))
            unique.push_back(std::move(choice));
    return unique;
}

} // namespace cli
