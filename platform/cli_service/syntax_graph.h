// What can be typed from a root on, as a graph of words: the parse graph without records, tests and running
// configuration, and without ways that lead to no command.
//
// From it come syntax lines: where branches meet again, they are written as alternatives in one line, where they do not,
// they are commands of their own.
#pragma once

#include "grammar.h"
#include "walker.h"

#include <map>
#include <string>
#include <vector>

namespace cli
{

/// A word, or what stands for an argument.
struct SyntaxWord {
    std::string text;
    std::string help;
    bool hidden = false;
    bool privileged = false;
};

/// One line of syntax.
struct SyntaxLine {
    std::string text; ///< alternatives in braces, what may be left out in brackets
    std::vector<std::size_t>
        words; ///< indices into SyntaxGraph::words(), in the order of the text, each once
    cli_handler_t handler = nullptr;
    bool conditional = false; ///< a test expression decides whether it is offered
};

class SyntaxGraph final : public cli_parser_t
{
public:
    /// Everything that can be typed in `mode`, behind "no" when `negated`. Throws std::logic_error for a graph that runs
    /// in circles.
    SyntaxGraph(const Grammar &grammar, Mode mode, bool negated);

    [[nodiscard]] const std::vector<SyntaxWord> &words() const { return words_; }
    /// The commands in the order of the graph, each once.
    [[nodiscard]] std::vector<SyntaxLine> lines() const;

    int argument(record_t &record, const transition_t &t, Argument kind) override;
    int set(record_t &record, const transition_t &t, const struct_set_cdb_var &node) override;
    int test(record_t &record, const transition_t &t, const struct_test_expression &node) override;
    int c2p(record_t &record, const transition_t &t, const struct_c2p &node) override;
    int eol(record_t &record, const transition_t &t, const struct_eol &node) override;
    int noprefix(record_t &record, const transition_t &t) override;
    int either(record_t &record, const transition_t &t) override;
    int append_point(record_t &record, const transition_t &t) override;
    int attach(record_t &record, const transition_t &t, const AttachNode &node) override;

private:
    static constexpr std::size_t none = static_cast<std::size_t>(-1);
    /// Node behind the end of every command.
    static constexpr std::size_t end_node = 0;

    struct Edge {
        std::size_t to;
        std::size_t word = none; ///< none: nothing is typed
        cli_handler_t handler = nullptr;
    };
    struct Node {
        std::vector<Edge> edges;
        bool conditional = false;
        std::size_t meeting = none; ///< where all its ways meet again
    };
    struct Piece {
        std::string text;
        std::vector<std::size_t> words;
    };

    std::size_t node_of(const transition_t *t);
    void add_edge(const transition_t *t, std::size_t word = none);
    [[nodiscard]] SyntaxWord word_of(const transition_t &t, Argument kind) const;
    void give_names_to_catch_alls();
    void prune();
    [[nodiscard]] bool ends() const;
    void find_meetings();

    static void append(Piece &piece, const Piece &more);
    [[nodiscard]] Piece labelled(const Edge &edge) const;
    [[nodiscard]] Piece until(std::size_t from, std::size_t stop) const;
    [[nodiscard]] std::vector<Piece> alternatives(std::size_t from, std::size_t stop) const;
    [[nodiscard]] static Piece choice(std::vector<Piece> alternatives);
    void split(std::size_t from, SyntaxLine line, std::vector<SyntaxLine> &lines) const;

    const Grammar &grammar_;
    bool negated_;
    std::vector<SyntaxWord> words_;
    std::vector<Node> nodes_;
    std::map<const transition_t *, std::size_t> known_;
    std::vector<const transition_t *> open_;
    std::size_t current_ = end_node;
};

} // namespace cli
