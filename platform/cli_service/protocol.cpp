#include "protocol.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <utility>

namespace cli
{

Request parse_request(std::string_view line)
{
    const std::size_t blank = line.find(' ');
    if (blank == std::string_view::npos)
        return {std::string(line), {}};
    return {std::string(line.substr(0, blank)), std::string(line.substr(blank + 1))};
}

std::optional<RequestReader::Line> RequestReader::next()
{
    const std::size_t newline = buffer_.find('\n');
    if (newline == std::string::npos) {
        if (buffer_.size() > REQUEST_LIMIT + 1) {
            skipping_ = true;
            buffer_.clear();
        }
        return std::nullopt;
    }
    std::string text = buffer_.substr(0, newline);
    buffer_.erase(0, newline + 1);
    if (!text.empty() && text.back() == '\r')
        text.pop_back();
    if (std::exchange(skipping_, false) || text.size() > REQUEST_LIMIT)
        return Line{true, {}};
    return Line{false, std::move(text)};
}

bool RequestReader::take(std::string_view line)
{
    for (std::size_t begin = 0; begin < buffer_.size();) {
        const std::size_t newline = buffer_.find('\n', begin);
        if (newline == std::string::npos)
            return false;
        const bool first = begin == 0;
        std::string_view one = std::string_view(buffer_).substr(begin, newline - begin);
        if (one.ends_with('\r'))
            one.remove_suffix(1);
        if (one == line && !(first && skipping_)) {
            buffer_.erase(begin, newline + 1 - begin);
            return true;
        }
        begin = newline + 1;
    }
    return false;
}

std::string encode_frame(std::string_view tag, std::string_view text,
                         std::initializer_list<std::string_view> fields)
{
    std::string frame(tag);
    frame += ' ' + std::to_string(text.size());
    for (const std::string_view field : fields)
        frame.append(" ").append(field);
    frame += '\n';
    frame += text;
    return frame;
}

std::optional<Frame> FrameReader::next()
{
    if (broken_)
        return std::nullopt;
    const std::string_view rest = std::string_view(buffer_).substr(begin_);
    const std::size_t newline = rest.find('\n');
    if (newline > FRAME_HEADER_LIMIT) { // there is no end of the header (npos), or it is too far away
        broken_ = std::min(newline, rest.size()) > FRAME_HEADER_LIMIT;
        return std::nullopt;
    }
    std::vector<std::string> words;
    const std::string_view header = rest.substr(0, newline);
    for (std::size_t begin = 0; begin <= header.size();) {
        const std::size_t end = std::min(header.find(' ', begin), header.size());
        words.emplace_back(header.substr(begin, end - begin));
        begin = end + 1;
    }
    std::size_t length = 0;
    bool sound = words.size() >= 2 && !words[0].empty();
    if (sound) {
        const char *const last = words[1].data() + words[1].size();
        const auto [end, error] = std::from_chars(words[1].data(), last, length);
        sound = error == std::errc{} && end == last && length <= FRAME_LIMIT;
    }
    if (!sound) {
        broken_ = true;
        return std::nullopt;
    }
    if (rest.size() - newline - 1 < length)
        return std::nullopt;
    Frame frame;
    frame.tag = std::move(words[0]);
    frame.fields.assign(std::make_move_iterator(words.begin() + 2), std::make_move_iterator(words.end()));
    frame.text = rest.substr(newline + 1, length);
    drop(newline + 1 + length);
    return frame;
}

// Moving the rest up for every frame would cost the square of a long output.
void FrameReader::drop(std::size_t bytes)
{
    begin_ += bytes;
    if (begin_ == buffer_.size() || begin_ > buffer_.size() / 2) {
        buffer_.erase(0, begin_);
        begin_ = 0;
    }
}

} // namespace cli
