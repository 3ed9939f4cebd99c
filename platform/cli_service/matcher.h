// Matches the words of a line against a graph.
//
// All alternatives advance together, word by word: after each word there is a set of positions, each with the command
// record as its path has filled it. Paths are kept in the order in which the graph tries them; when the line ends, the
// first path at an end-of-line node wins. So two trees may begin with the same keywords, and an argument that several
// nodes accept goes to the first of them that leads to the end.
#pragma once

#include "grammar.h"
#include "walker.h"
#include "words.h"

#include <deque>
#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace cli
{

enum class Level { user, privileged };

/// Test nodes decide what is on offer where a line is typed. `passed`: as if all of them held, to tell a command that
/// is withheld from one that does not exist.
enum class Guards { asked, passed };

/// The interfaces, and other things, that lines may name. Every member must be set.
struct InterfaceDirectory {
    std::function<u_int32_t(std::string_view name)> index_of; ///< 0: no such interface
    std::function<u_int64_t(u_int32_t ifindex)> kinds_of;     ///< bits of lsm_if_get_kind_mask
    std::function<std::vector<std::string>()> names;
    /// What the free word behind `keyword` may name, for help and completion; other words are taken all the same.
    std::function<std::vector<std::string>(std::string_view keyword)> named_behind = [](std::string_view) {
        return std::vector<std::string>();
    };
};

/// What a line, or the words of it, came to.
struct Match {
    enum class Result { run, invalid, ambiguous, incomplete };

    Result result = Result::invalid;
    std::size_t word = 0; ///< invalid, ambiguous: the word at fault
    cli_handler_t handler = nullptr;
    struct_command_data_block record{}; ///< run: filled; its parser is nullptr
};

/// Something that may be typed.
struct Choice {
    std::string text; ///< keyword, or what stands for an argument, e.g. "A.B.C.D" or "<1-2>"
    std::string help;
    bool literal; ///< `text` can be typed as it is
};

class Matcher final : public cli_parser_t
{
public:
    Matcher(const Grammar &grammar, const InterfaceDirectory &interfaces, Level level,
            Guards guards = Guards::asked)
        : grammar_(grammar), interfaces_(interfaces), level_(level), guards_(guards)
    {
    }

    /// `start` holds what is known before the first word: mode, mode_intidx, flag_nd_prefix.
    [[nodiscard]] Match match(const struct_transtion *root, const struct_command_data_block &start,
                              std::span<const Word> words);

    /// What may follow `words` and begins with `partial`, in the order of the graph, each text once. Hidden keywords
    /// are left out; the end of the line is "<cr>". Empty when `words` lead nowhere.
    [[nodiscard]] std::vector<Choice> choices(const struct_transtion *root,
                                              const struct_command_data_block &start,
                                              std::span<const Word> words, std::string_view partial);

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
    /// Records are shared by the positions that have not changed them; `record` is an index into records_.
    struct Position {
        const transition_t *t;
        std::size_t record;
    };
    struct Waiting {
        const transition_t *t;
        std::size_t record;
        Argument kind;
    };
    struct End {
        const struct_eol *node;
        std::size_t record;
    };
    enum class Fit { none, hidden_abbreviation, abbreviation, whole };
    enum class Advance { moved, stuck, ambiguous };

    void begin(const transition_t *root, const record_t &start);
    void expand();
    int go_on(const transition_t *first, const transition_t *second);
    [[nodiscard]] std::size_t copy_record(std::size_t from);
    Advance advance(std::string_view word);
    [[nodiscard]] bool permitted(const struct_common_keyword &node) const;
    [[nodiscard]] static Fit fit(const struct_common_keyword &node, std::string_view word);
    bool take(const Waiting &node, std::string_view word);
    bool take_number(const Waiting &node, std::string_view word);
    bool take_address(const Waiting &node, std::string_view word);
    bool take_prefix(const Waiting &node, std::string_view word);
    bool take_mac(const Waiting &node, std::string_view word);
    bool take_interface(const Waiting &node, std::string_view word);
    bool take_text(std::span<const Word> words);
    void accept(const Waiting &node, std::size_t record);
    void offer(std::vector<Choice> &list, const Waiting &node, std::string_view partial) const;

    const Grammar &grammar_;
    const InterfaceDirectory &interfaces_;
    Level level_;
    Guards guards_;

    std::deque<record_t> records_; ///< a deque: actions hold references while records are added
    std::vector<Position> positions_;
    std::vector<Position> open_;
    std::vector<Position> seen_;
    std::vector<Waiting> waiting_;
    std::vector<End> ends_;
    std::size_t current_ = 0;
    const char *last_keyword_ = ""; ///< the word before, when it was one
    std::optional<Waiting> rest_;   ///< the node that took the rest of the line
};

} // namespace cli
