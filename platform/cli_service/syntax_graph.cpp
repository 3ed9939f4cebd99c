#include "syntax_graph.h"

#include "matcher.h"

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <utility>

namespace cli
{
namespace
{

bool is_permitted_to_users(const struct_common_keyword &keyword)
{
    return (keyword.exec_priv & 0x08) != 0 && (keyword.exec_priv & 0x10) == 0;
}

/// No interfaces: what stands for an argument is wanted, not the names that it takes.
const InterfaceDirectory &no_interfaces()
{
    static const InterfaceDirectory directory{
        .index_of = [](std::string_view) -> u_int32_t { return 0; },
        .kinds_of = [](u_int32_t) -> u_int64_t { return 0; },
        .names = [] { return std::vector<std::string>(); },
        .named_behind = [](std::string_view) { return std::vector<std::string>(); },
    };
    return directory;
}

} // namespace

SyntaxGraph::SyntaxGraph(const Grammar &grammar, Mode mode, bool negated)
    : grammar_(grammar), negated_(negated)
{
    nodes_.resize(1); // end_node
    struct_command_data_block record{};
    record.mode_name = mode_name(mode);
    record.parser = this;
    node_of(mode_root(mode));
    while (!open_.empty()) {
        const transition_t *const t = open_.back();
        open_.pop_back();
        current_ = known_.at(t);
        static_cast<void>(t->pfn(&record, t));
    }
    give_names_to_catch_alls();
    prune();
    if (!ends())
        throw std::logic_error("the parse graph runs in circles");
    find_meetings();
}

// ---- Building --------------------------------------------------------------------------------------------------

std::size_t SyntaxGraph::node_of(const transition_t *t)
{
    const auto [found, added] = known_.try_emplace(t, nodes_.size());
    if (added) {
        nodes_.emplace_back();
        open_.push_back(t);
    }
    return found->second;
}

void SyntaxGraph::add_edge(const transition_t *t, std::size_t word)
{
    if (t == nullptr || t->pfn == nullptr)
        return;
    const std::size_t to = node_of(t);
    nodes_[current_].edges.push_back({to, word, nullptr});
}

// The matcher's own words for the argument, asked of a graph of this one node.
SyntaxWord SyntaxGraph::word_of(const transition_t &t, Argument kind) const
{
    if (kind == Argument::keyword) {
        const auto &keyword = *static_cast<const struct_common_keyword *>(t.argument);
        return {keyword.pname, keyword.phelp, (keyword.flag & CLI_KEYWORD_FLAG_HIDDEN) != 0,
                !is_permitted_to_users(keyword)};
    }
    const transition_t alone{t.pfn, t.argument, &Tno_alt, &Tno_alt};
    struct_command_data_block start{};
    start.mode_name = CLI_MODE_EXEC;
    const std::vector<Choice> choices =
        Matcher(grammar_, no_interfaces(), Level::privileged).choices(&alone, start, {}, "");
    if (choices.empty())
        return {};
    return {choices.front().text, choices.front().help};
}

int SyntaxGraph::argument(record_t & /*record*/, const transition_t &t, Argument kind)
{
    words_.push_back(word_of(t, kind));
    add_edge(t.accept, words_.size() - 1);
    add_edge(t.alternate);
    return 0;
}

int SyntaxGraph::set(record_t & /*record*/, const transition_t &t, const struct_set_cdb_var & /*node*/)
{
    add_edge(t.accept);
    add_edge(t.alternate);
    return 0;
}

int SyntaxGraph::test(record_t & /*record*/, const transition_t & /*t*/, const struct_test_expression &node)
{
    nodes_[current_].conditional = true;
    add_edge(node.ptrue);
    add_edge(node.pfalse);
    return 0;
}

int SyntaxGraph::c2p(record_t & /*record*/, const transition_t &t, const struct_c2p & /*node*/)
{
    add_edge(t.accept);
    add_edge(t.alternate);
    return 0;
}

int SyntaxGraph::eol(record_t & /*record*/, const transition_t &t, const struct_eol &node)
{
    nodes_[current_].edges.push_back({end_node, none, node.exec_func});
    add_edge(t.alternate);
    return 0;
}

int SyntaxGraph::noprefix(record_t & /*record*/, const transition_t &t)
{
    add_edge(negated_ ? t.accept : t.alternate);
    return 0;
}

int SyntaxGraph::either(record_t & /*record*/, const transition_t &t)
{
    add_edge(t.accept);
    add_edge(t.alternate);
    return 0;
}

int SyntaxGraph::append_point(record_t & /*record*/, const transition_t &t)
{
    add_edge(t.accept);
    add_edge(t.alternate);
    return 0;
}

int SyntaxGraph::attach(record_t & /*record*/, const transition_t &t, const AttachNode &node)
{
    for (std::size_t i = 0; i < node.count; ++i)
        for (const Grammar::Registration &tree : grammar_.at(node.points[i]))
            add_edge(tree.root);
    add_edge(t.alternate);
    return 0;
}

// An argument that leads nowhere and is followed by one without a text is there for help alone: the other one takes the
// word, whatever it is, so that the handler can say what is wrong with it.
void SyntaxGraph::give_names_to_catch_alls()
{
    for (const Node &node : nodes_) {
        if (node.edges.size() != 2 || node.edges[0].word == none || node.edges[1].word != none ||
            !nodes_[node.edges[0].to].edges.empty())
            continue;
        for (const Edge &taking : nodes_[node.edges[1].to].edges)
            if (taking.word != none && words_[taking.word].text.empty())
                words_[taking.word] = words_[node.edges[0].word];
    }
}

// Leaves out edges that lead to no command.
void SyntaxGraph::prune()
{
    std::vector<bool> useful(nodes_.size(), false);
    useful[end_node] = true;
    for (bool changed = true; changed;) {
        changed = false;
        for (std::size_t i = 0; i < nodes_.size(); ++i) {
            const bool leads = std::any_of(nodes_[i].edges.begin(), nodes_[i].edges.end(),
                                           [&](const Edge &edge) { return useful[edge.to]; });
            changed = changed || (leads && !useful[i]);
            useful[i] = useful[i] || leads;
        }
    }
    for (Node &node : nodes_)
        std::erase_if(node.edges, [&](const Edge &edge) { return !useful[edge.to]; });
}

// Whether every way comes to an end: nodes whose ways are all known to do so are taken away until none is left.
bool SyntaxGraph::ends() const
{
    std::vector<bool> ending(nodes_.size(), false);
    for (bool changed = true; changed;) {
        changed = false;
        for (std::size_t i = 0; i < nodes_.size(); ++i) {
            const bool now = std::all_of(nodes_[i].edges.begin(), nodes_[i].edges.end(),
                                         [&](const Edge &edge) { return ending[edge.to]; });
            changed = changed || (now && !ending[i]);
            ending[i] = ending[i] || now;
        }
    }
    return std::find(ending.begin(), ending.end(), false) == ending.end();
}

// The nearest node that is on every way from a node to the end.
void SyntaxGraph::find_meetings()
{
    const std::size_t count = nodes_.size();
    std::vector<std::vector<bool>> behind(count, std::vector<bool>(count, true));
    behind[end_node].assign(count, false);
    behind[end_node][end_node] = true;
    for (bool changed = true; changed;) {
        changed = false;
        for (std::size_t i = count; i-- > 1;) {
            if (nodes_[i].edges.empty())
                continue;
            std::vector<bool> now(count, true);
            for (const Edge &edge : nodes_[i].edges)
                std::transform(now.begin(), now.end(), behind[edge.to].begin(), now.begin(),
                               std::logical_and<>());
            now[i] = true;
            changed = changed || now != behind[i];
            behind[i] = std::move(now);
        }
    }
    std::vector<std::size_t> depth(count);
    for (std::size_t i = 0; i < count; ++i)
        depth[i] = static_cast<std::size_t>(std::count(behind[i].begin(), behind[i].end(), true));
    for (std::size_t i = 1; i < count; ++i)
        for (std::size_t j = 0; j < count; ++j)
            if (j != i && behind[i][j] && (nodes_[i].meeting == none || depth[j] > depth[nodes_[i].meeting]))
                nodes_[i].meeting = j;
}

// ---- Writing ---------------------------------------------------------------------------------------------------

void SyntaxGraph::append(Piece &piece, const Piece &more)
{
    if (!piece.text.empty() && !more.text.empty())
        piece.text += ' ';
    piece.text += more.text;
    for (const std::size_t word : more.words)
        if (std::find(piece.words.begin(), piece.words.end(), word) == piece.words.end())
            piece.words.push_back(word);
}

SyntaxGraph::Piece SyntaxGraph::labelled(const Edge &edge) const
{
    return edge.word == none ? Piece{} : Piece{words_[edge.word].text, {edge.word}};
}

// What is typed between two nodes.
SyntaxGraph::Piece SyntaxGraph::until(std::size_t from, std::size_t stop) const
{
    Piece piece;
    while (from != stop) {
        const Node &node = nodes_[from];
        if (node.edges.size() == 1) {
            append(piece, labelled(node.edges.front()));
            from = node.edges.front().to;
        } else {
            append(piece, choice(alternatives(from, node.meeting)));
            from = node.meeting;
        }
    }
    return piece;
}

// The ways from a node to the one where they meet. A branch that only branches again adds its ways to these.
std::vector<SyntaxGraph::Piece> SyntaxGraph::alternatives(std::size_t from, std::size_t stop) const
{
    std::vector<Piece> ways;
    const Node &node = nodes_[from];
    if (from == stop) {
        ways.emplace_back();
    } else if (node.meeting != stop && node.edges.size() > 1) {
        Piece way = choice(alternatives(from, node.meeting));
        append(way, until(node.meeting, stop));
        ways.push_back(std::move(way));
    } else {
        for (const Edge &edge : node.edges) {
            std::vector<Piece> behind;
            if (edge.word == none) {
                behind = alternatives(edge.to, stop);
            } else {
                behind.push_back(labelled(edge));
                append(behind.back(), until(edge.to, stop));
            }
            for (Piece &way : behind)
                if (std::none_of(ways.begin(), ways.end(),
                                 [&](const Piece &w) { return w.text == way.text; }))
                    ways.push_back(std::move(way));
        }
    }
    return ways;
}

// Alternatives as one piece. What all of them end with stands once, behind them.
SyntaxGraph::Piece SyntaxGraph::choice(std::vector<Piece> ways)
{
    const auto last_word = [](const Piece &way) {
        const std::string_view text = way.text;
        const std::string_view word = text.substr(text.find_last_of(' ') + 1);
        return word.find_first_of("[]{}") == std::string_view::npos ? std::string(word) : std::string();
    };
    std::string tail;
    while (ways.size() > 1) {
        const std::string word = last_word(ways.front());
        if (word.empty() ||
            std::any_of(ways.begin(), ways.end(), [&](const Piece &way) { return last_word(way) != word; }))
            break;
        for (Piece &way : ways)
            way.text.resize(way.text.size() - std::min(way.text.size(), word.size() + 1));
        tail.insert(0, tail.empty() ? word : word + " ");
    }
    Piece piece;
    std::string text;
    std::size_t not_empty = 0;
    for (const Piece &way : ways) {
        append(piece, {"", way.words});
        if (!way.text.empty())
            text.append(not_empty++ == 0 ? "" : " | ").append(way.text);
    }
    if (not_empty != 0 && not_empty < ways.size())
        piece.text = "[" + text + "]";
    else
        piece.text = not_empty > 1 ? "{" + text + "}" : text;
    if (!tail.empty())
        piece.text.append(piece.text.empty() ? "" : " ").append(tail);
    return piece;
}

// Follows what there is only one way of, and begins a line of its own for each way that does not meet the others.
void SyntaxGraph::split(std::size_t from, SyntaxLine line, std::vector<SyntaxLine> &lines) const
{
    while (from != end_node) {
        const Node &node = nodes_[from];
        line.conditional = line.conditional || node.conditional;
        const bool apart = node.edges.size() > 1 && node.meeting == end_node;
        if (apart) {
            for (const Edge &edge : node.edges) {
                SyntaxLine branch = line;
                Piece piece{branch.text, branch.words};
                append(piece, labelled(edge));
                branch.text = std::move(piece.text);
                branch.words = std::move(piece.words);
                branch.handler = edge.handler;
                split(edge.to, std::move(branch), lines);
            }
            return;
        }
        Piece piece{line.text, line.words};
        if (node.edges.size() == 1) {
            append(piece, labelled(node.edges.front()));
            line.handler = node.edges.front().handler;
            from = node.edges.front().to;
        } else {
            append(piece, choice(alternatives(from, node.meeting)));
            from = node.meeting;
        }
        line.text = std::move(piece.text);
        line.words = std::move(piece.words);
    }
    const auto same = [&](const SyntaxLine &other) { return other.text == line.text; };
    if (!line.text.empty() && std::none_of(lines.begin(), lines.end(), same))
        lines.push_back(std::move(line));
}

std::vector<SyntaxLine> SyntaxGraph::lines() const
{
    std::vector<SyntaxLine> lines;
    const std::size_t root = end_node + 1;
    if (!nodes_[root].edges.empty())
        split(root, {}, lines);
    return lines;
}

} // namespace cli
