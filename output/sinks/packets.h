/*
 * packets.h: records as they are sent, one behind another in one piece of memory.
 */
#ifndef OUTPUT_SINKS_PACKETS_H
#define OUTPUT_SINKS_PACKETS_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace output
{

struct Packet {
    size_t end;      /* in the list's bytes */
    uint64_t number; /* the record's */
};

/* Some packets of a list, which stays as it is meanwhile. */
class Packets
{
public:
    Packets(std::string_view bytes, size_t start, std::span<const Packet> packets)
        : all_(bytes), start_(start), packets_(packets)
    {
    }

    size_t size() const { return packets_.size(); }
    bool empty() const { return packets_.empty(); }
    std::string_view bytes() const { return all_.substr(start_, end_of(size())); }
    /* Where packet i begins in bytes(); of size(): their number. */
    size_t end_of(size_t count) const { return count == 0 ? 0 : packets_[count - 1].end - start_; }
    std::string_view operator[](size_t i) const { return bytes().substr(end_of(i), end_of(i + 1) - end_of(i)); }
    uint64_t number(size_t i) const { return packets_[i].number; }
    Packets first(size_t count) const { return {all_, start_, packets_.first(count)}; }

    /* How many lie whole in the first `length` bytes. */
    size_t whole_in(size_t length) const
    {
        const size_t limit = start_ + length;
        const auto after =
            std::partition_point(packets_.begin(), packets_.end(), [=](const Packet &p) { return p.end <= limit; });
        return static_cast<size_t>(after - packets_.begin());
    }

private:
    std::string_view all_;
    size_t start_;
    std::span<const Packet> packets_;
};

/* Packets in the order in which they were appended, taken from the front. */
class PacketList
{
public:
    /* The packet is what is appended to text() before close(). */
    std::string &text() { return text_; }
    void close(uint64_t number) { packets_.push_back({text_.size(), number}); }

    size_t size() const { return packets_.size() - first_; }
    bool empty() const { return size() == 0; }
    size_t bytes() const { return text_.size() - start(); }

    /* From the first on, no more than `count` with no more than `bytes` together, but one at least. */
    Packets front(size_t count, size_t bytes) const
    {
        const std::span<const Packet> rest = std::span(packets_).subspan(first_);
        const Packets most(text_, start(), rest.first(std::min(count, rest.size())));
        return most.first(std::max<size_t>(most.whole_in(bytes), std::min<size_t>(most.size(), 1)));
    }
    void drop_front(size_t count)
    {
        first_ += count;
        if (empty())
            clear();
    }

private:
    static constexpr size_t kKept = 64 << 10; /* memory that an empty list may keep */

    size_t start() const { return first_ == 0 ? 0 : packets_[first_ - 1].end; }
    void clear()
    {
        first_ = 0;
        text_.clear();
        packets_.clear();
        if (text_.capacity() > kKept)
            text_.shrink_to_fit();
        if (packets_.capacity() * sizeof(Packet) > kKept)
            packets_.shrink_to_fit();
    }

    std::string text_;
    std::vector<Packet> packets_;
    size_t first_ = 0;
};

}  // namespace output

#endif
