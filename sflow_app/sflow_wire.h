// Writer of sFlow datagrams: big-endian fields, one after another, into a buffer of fixed size. It never
// writes beyond the end: a field that does not fit sets `overflow`, and from then on nothing more is written,
// so that a caller checks once, after the last field, and throws the whole away. Belongs to the module
// sflow_receiver.
#pragma once

#include <cstddef>
#include <cstring>
#include <endian.h>
#include <sys/types.h>

struct sflow_wire_t {
    u_int8_t *next; ///< where the next field goes
    u_int8_t *end;  ///< first byte that must not be written
    bool overflow;  ///< a field did not fit
};

/// Writes into the `len` bytes at `buf`, which stays the caller's.
inline sflow_wire_t sflow_wire_begin(void *buf, size_t len)
{
    u_int8_t *first = static_cast<u_int8_t *>(buf);
    return {.next = first, .end = first + len, .overflow = false};
}

/// Takes the next `len` bytes of the buffer without writing to them; null when they are not there.
inline u_int8_t *sflow_wire_take(sflow_wire_t *wire, size_t len)
{
    if (wire->overflow || len > static_cast<size_t>(wire->end - wire->next)) {
        wire->overflow = true;
        return nullptr;
    }
    u_int8_t *field = wire->next;
    wire->next += len;
    return field;
}

inline void sflow_wire_bytes(sflow_wire_t *wire, const void *bytes, size_t len)
{
    u_int8_t *field = sflow_wire_take(wire, len);
    if (field != nullptr && len != 0)
        std::memcpy(field, bytes, len);
}

inline void sflow_wire_u32(sflow_wire_t *wire, u_int32_t value)
{
    const u_int32_t big_endian = htobe32(value);
    sflow_wire_bytes(wire, &big_endian, sizeof(big_endian));
}

inline void sflow_wire_u64(sflow_wire_t *wire, u_int64_t value)
{
    const u_int64_t big_endian = htobe64(value);
    sflow_wire_bytes(wire, &big_endian, sizeof(big_endian));
}
