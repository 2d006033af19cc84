// pbtools: the Protocol Buffers codec runtime under every DG message body. It owns the
// workspace heap, the encoder, the decoder and the table walker that the message
// units (req_time_sync, res_time_sync, res_timezone_offset, common_agent_info, command) use.
// Thread-safe: every function works only on the records, buffers and workspace it is given.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

// ---- error codes (returned negated) ----------------------------------------------------
enum : int {
    PBTOOLS_OK = 0,
    PBTOOLS_BAD_WIRE_TYPE = 1,
    PBTOOLS_OUT_OF_DATA = 2,
    PBTOOLS_OUT_OF_MEMORY = 3,
    PBTOOLS_ENCODE_BUFFER_FULL = 4,
    PBTOOLS_BAD_FIELD_NUMBER = 5,
    PBTOOLS_VARINT_OVERFLOW = 6,
    PBTOOLS_SEEK_OVERFLOW = 7, // has a text only: truncated data is reported as OUT_OF_DATA
    PBTOOLS_LENGTH_DELIMITED_OVERFLOW = 8,
};

// Text of an error code; the sign is ignored, anything outside 0..8 gives "Unknown error".
// Cannot fail; the text is static.
const char *pbtools_error_code_to_string(int code);

// ---- workspace heap ----------------------------------------------------------------------
// The first 16 bytes of a workspace: the area, its size and the next free position.
struct pbtools_heap_t {
    char *buf_p;
    int32_t size;
    int32_t pos;
};
static_assert(sizeof(pbtools_heap_t) == 16, "the heap record fills the first 16 bytes of a workspace");

// Places the heap record at the start of the workspace (moved up to the next 8-byte
// boundary when the area is not aligned, since the records in it hold pointers). Areas
// beyond 0x7FFFFFFF bytes use only that much. Returns the heap, or null when fewer than 16
// bytes remain; nothing is written then.
[[nodiscard]] pbtools_heap_t *pbtools_heap_new(void *buf_p, size_t size);

// Bump allocation rounded up to alignment (a power of two: 8 for records and arrays, 1 for
// string and byte contents). Returns the zero-filled block, or null when the heap is
// exhausted (the heap is then unchanged). Nothing is ever freed on its own.
[[nodiscard]] void *pbtools_heap_alloc(pbtools_heap_t *heap_p, size_t size, size_t alignment);
// The same without the zero fill, for blocks the caller overwrites completely at once.
[[nodiscard]] void *pbtools_heap_alloc_uninit(pbtools_heap_t *heap_p, size_t size, size_t alignment);

// ---- field types of message records ---------------------------------------------------------
struct pbtools_bytes_t {
    uint8_t *buf_p; // null when size is 0
    size_t size;
};

// A repeated message field or map: a count and an array of exactly that many item records.
template <typename T> struct pbtools_repeated {
    int32_t length;
    T *items_p;
};

// Item record of every map of the protocol (string to string, key field 1, value field 2).
struct pbtools_map_entry_t {
    pbtools_heap_t *heap_p;
    const char *key;
    const char *value;
};

// ---- encoder primitives -----------------------------------------------------------------------
// Writes forwards from the start of the buffer, each field where the previous one ended (so
// fields go on the wire in the order of the calls); the first failure latches and later
// writes do nothing. The plain writers omit default values, the _always writers do not.
struct pbtools_encoder_t {
    uint8_t *buf_p;
    int32_t size;
    int32_t pos;   // next byte to write; starts at 0
    int32_t error; // 0 or the first negated error code
};

// Starts an encoder on buf_p (sizes beyond 0x7FFFFFFF are clamped). Cannot fail.
void pbtools_encoder_init(pbtools_encoder_t *self_p, uint8_t *buf_p, size_t size);
// Returns the number of bytes written at the start of the buffer, or the latched negated
// error (-4 when the buffer was full; the buffer contents are then undefined).
[[nodiscard]] int pbtools_encoder_get_result(pbtools_encoder_t *self_p);

void pbtools_encoder_write_int32(pbtools_encoder_t *self_p, int field_number, int32_t value);
void pbtools_encoder_write_int32_always(pbtools_encoder_t *self_p, int field_number, int32_t value);
void pbtools_encoder_write_uint32(pbtools_encoder_t *self_p, int field_number, uint32_t value);
void pbtools_encoder_write_uint32_always(pbtools_encoder_t *self_p, int field_number, uint32_t value);
void pbtools_encoder_write_int64(pbtools_encoder_t *self_p, int field_number, int64_t value);
void pbtools_encoder_write_int64_always(pbtools_encoder_t *self_p, int field_number, int64_t value);
void pbtools_encoder_write_uint64(pbtools_encoder_t *self_p, int field_number, uint64_t value);
void pbtools_encoder_write_uint64_always(pbtools_encoder_t *self_p, int field_number, uint64_t value);
// A null string is written as the empty string.
void pbtools_encoder_write_string(pbtools_encoder_t *self_p, int field_number, const char *value_p);
void pbtools_encoder_write_string_always(pbtools_encoder_t *self_p, int field_number, const char *value_p);
void pbtools_encoder_write_bytes(pbtools_encoder_t *self_p, int field_number, const pbtools_bytes_t *value_p);
void pbtools_encoder_write_bytes_always(pbtools_encoder_t *self_p, int field_number,
                                        const pbtools_bytes_t *value_p);

// ---- message tables ------------------------------------------------------------------------------
// Each message unit describes its records with a constant table of fields; one walker
// creates, encodes and decodes every message from it, so the wire rules live in one place.
enum pbtools_kind : uint8_t {
    PBTOOLS_KIND_INT32, // also enums
    PBTOOLS_KIND_UINT32,
    PBTOOLS_KIND_INT64,
    PBTOOLS_KIND_UINT64,
    PBTOOLS_KIND_STRING,
    PBTOOLS_KIND_BYTES,
    PBTOOLS_KIND_MESSAGE,  // singular sub-message: record pointer, null when absent
    PBTOOLS_KIND_REPEATED, // repeated message or map: pbtools_repeated<item record>
};

struct pbtools_message_desc;

struct pbtools_field_desc {
    uint32_t number;
    pbtools_kind kind;
    uint8_t tag_size;   // bytes of the encoded tag
    uint32_t offset;    // of the member in the record
    uint32_t item_size; // size of the pointed-to record for MESSAGE and REPEATED, else 0
    uint8_t tag[8];     // the tag as written on the wire (number and wire type), tag_size bytes used
    const pbtools_message_desc *sub_p;
};

// Field numbers below this are found through the direct index of a table; larger ones by a
// search of the field list.
inline constexpr uint32_t PBTOOLS_DIRECT_NUMBERS = 64;
inline constexpr uint8_t PBTOOLS_NO_FIELD = 0xFF;

struct pbtools_message_desc {
    uint32_t record_size;
    const pbtools_field_desc *fields_p; // ascending field numbers
    uint32_t field_count;
    uint32_t max_number;                   // the last field's number
    bool has_repeated;                     // some field is REPEATED
    uint64_t string_words;                 // bit i: the 8 bytes at offset 8 * i hold a string
    uint8_t index[PBTOOLS_DIRECT_NUMBERS]; // field number -> position in fields_p, or PBTOOLS_NO_FIELD
};

// The walker keeps one counter per field on the stack while decoding.
inline constexpr uint32_t PBTOOLS_MAX_FIELDS = 32;
// Records are at most this large, so that string_words covers them.
inline constexpr uint32_t PBTOOLS_MAX_RECORD_SIZE = 64 * 8;

// The member's C++ type decides its kind, so a table entry cannot disagree with its record.
template <typename T> struct pbtools_kind_of;
template <> struct pbtools_kind_of<int32_t> {
    static constexpr pbtools_kind kind = PBTOOLS_KIND_INT32;
    static constexpr uint32_t item_size = 0;
};
template <> struct pbtools_kind_of<uint32_t> {
    static constexpr pbtools_kind kind = PBTOOLS_KIND_UINT32;
    static constexpr uint32_t item_size = 0;
};
template <> struct pbtools_kind_of<int64_t> {
    static constexpr pbtools_kind kind = PBTOOLS_KIND_INT64;
    static constexpr uint32_t item_size = 0;
};
template <> struct pbtools_kind_of<uint64_t> {
    static constexpr pbtools_kind kind = PBTOOLS_KIND_UINT64;
    static constexpr uint32_t item_size = 0;
};
template <> struct pbtools_kind_of<const char *> {
    static constexpr pbtools_kind kind = PBTOOLS_KIND_STRING;
    static constexpr uint32_t item_size = 0;
};
template <> struct pbtools_kind_of<pbtools_bytes_t> {
    static constexpr pbtools_kind kind = PBTOOLS_KIND_BYTES;
    static constexpr uint32_t item_size = 0;
};
template <typename T> struct pbtools_kind_of<T *> {
    static constexpr pbtools_kind kind = PBTOOLS_KIND_MESSAGE;
    static constexpr uint32_t item_size = sizeof(T);
};
template <typename T> struct pbtools_kind_of<pbtools_repeated<T>> {
    static constexpr pbtools_kind kind = PBTOOLS_KIND_REPEATED;
    static constexpr uint32_t item_size = sizeof(T);
};

// Table entry with its tag bytes worked out at compile time (varint of number << 3 | wire
// type: 0 for the scalar kinds, 2 for the length-delimited ones).
consteval pbtools_field_desc pbtools_field_make(uint32_t number, pbtools_kind kind, size_t offset,
                                                uint32_t item_size, const pbtools_message_desc *sub_p)
{
    pbtools_field_desc field{number, kind, 0, static_cast<uint32_t>(offset), item_size, {}, sub_p};
    uint64_t tag = (static_cast<uint64_t>(number) << 3) | (kind <= PBTOOLS_KIND_UINT64 ? 0u : 2u);
    do {
        field.tag[field.tag_size++] = static_cast<uint8_t>((tag & 0x7F) | (tag >= 0x80 ? 0x80 : 0));
        tag >>= 7;
    } while (tag != 0);
    return field;
}

// Table entry for a member; sub_p is the item table for MESSAGE and REPEATED, else nullptr.
#define PBTOOLS_FIELD(record, member, number, sub_p)                                                         \
    pbtools_field_make((number), pbtools_kind_of<decltype(record::member)>::kind, offsetof(record, member),  \
                       pbtools_kind_of<decltype(record::member)>::item_size, (sub_p))

// A message table over its field list, with the direct index and the string mask filled in.
template <size_t N>
consteval pbtools_message_desc pbtools_message_desc_make(size_t record_size,
                                                         const pbtools_field_desc (&fields)[N])
{
    pbtools_message_desc desc{
        static_cast<uint32_t>(record_size), fields, static_cast<uint32_t>(N), 0, false, 0, {}};
    for (uint8_t &slot : desc.index) {
        slot = PBTOOLS_NO_FIELD;
    }
    for (size_t i = 0; i < N; i++) {
        desc.max_number = fields[i].number;
        if (fields[i].number < PBTOOLS_DIRECT_NUMBERS) {
            desc.index[fields[i].number] = static_cast<uint8_t>(i);
        }
        desc.has_repeated = desc.has_repeated || fields[i].kind == PBTOOLS_KIND_REPEATED;
        if (fields[i].kind == PBTOOLS_KIND_STRING && fields[i].offset / 8 < 64) {
            desc.string_words |= uint64_t{1} << (fields[i].offset / 8);
        }
    }
    return desc;
}

// Compile-time check of a table: numbers valid and ascending, every message field linked to
// a table of the right record size, members inside the record after its heap pointer,
// strings on 8-byte boundaries inside the first PBTOOLS_MAX_RECORD_SIZE bytes.
consteval bool pbtools_desc_is_valid(const pbtools_message_desc &desc)
{
    if (desc.field_count == 0 || desc.field_count > PBTOOLS_MAX_FIELDS || desc.record_size < sizeof(void *) ||
        desc.record_size > PBTOOLS_MAX_RECORD_SIZE) {
        return false;
    }
    for (uint32_t i = 0; i < desc.field_count; i++) {
        const pbtools_field_desc &field = desc.fields_p[i];
        bool nested = field.kind == PBTOOLS_KIND_MESSAGE || field.kind == PBTOOLS_KIND_REPEATED;
        if (field.number == 0 || field.number > 0x1FFFFFFF ||
            (i > 0 && field.number <= desc.fields_p[i - 1].number) || field.offset < sizeof(void *) ||
            field.offset >= desc.record_size ||
            (field.kind == PBTOOLS_KIND_STRING && field.offset % 8 != 0) ||
            // A nested field without a table fails here too: null cannot be dereferenced at
            // compile time (and a table's address is not compared with null, which some
            // sanitizer builds cannot evaluate).
            (nested ? field.sub_p->record_size != field.item_size : field.sub_p != nullptr)) {
            return false;
        }
    }
    return true;
}

inline constexpr pbtools_field_desc pbtools_map_entry_fields[] = {
    PBTOOLS_FIELD(pbtools_map_entry_t, key, 1, nullptr),
    PBTOOLS_FIELD(pbtools_map_entry_t, value, 2, nullptr),
};
inline constexpr pbtools_message_desc pbtools_map_entry_desc =
    pbtools_message_desc_make(sizeof(pbtools_map_entry_t), pbtools_map_entry_fields);
static_assert(pbtools_desc_is_valid(pbtools_map_entry_desc));

// ---- table walker (called by the message units) ------------------------------------------------
// Creates the heap in the workspace and a record with every field at its default (texts
// "", counts 0, pointers null). Returns the record, or null when the workspace is under 16
// bytes or too small for the record.
[[nodiscard]] void *pbtools_message_new(void *workspace_p, size_t size, const pbtools_message_desc *desc_p);

// Resets the record to its defaults and decodes data into it, allocating from its heap.
// A record made by pbtools_message_new (the one at the start of its workspace) first gets
// back all of its heap beyond itself, so one record can take any number of decodes in turn;
// what earlier decodes or allocations put there is overwritten. Returns size (all of it is
// consumed), or a negated code: -1 bad wire type, -2 data ends inside a field, -3 heap
// exhausted, -5 field number 0, -6 varint over 10 bytes, -8 length of 0x7FFFFFFF or more
// (also for a size of that much). The record is unusable on failure.
[[nodiscard]] int pbtools_message_decode(void *record_p, const uint8_t *data_p, size_t size,
                                         const pbtools_message_desc *desc_p);

// Workspace in which any body of `size` bytes of the message decodes, so that a decoder sized
// from the request never fails for want of room: the heap record, the message's record, and
// for every two bytes of body one nested record (the largest the message can hold, aligned).
// Cannot fail.
[[nodiscard]] size_t pbtools_decode_workspace_size(const pbtools_message_desc *desc_p, size_t size);

// Allocates `length` default items for the repeated field at `offset` and points the field
// at them (0 items leaves it empty). Returns 0, or -3 when the heap is exhausted or length
// is negative; the field is unchanged then.
[[nodiscard]] int pbtools_message_repeated_alloc(void *record_p, const pbtools_message_desc *desc_p,
                                                 size_t offset, int length);

// Allocates a default record for the sub-message field at `offset` and points the field at
// it. Returns 0, or -3 when the heap is exhausted (the field is unchanged).
[[nodiscard]] int pbtools_message_sub_alloc(void *record_p, const pbtools_message_desc *desc_p,
                                            size_t offset);

// ---- compiled encoder (called by the message units) ------------------------------------------
// Encoding with the table walked at compile time: each message unit gets straight-line code
// for its records, the offsets and tags of its tables built in.

// The free part of an output buffer, [pos, end). Every write checks the room first and
// returns false when its bytes do not fit; the encoding is abandoned then.
struct pbtools_writer_t {
    uint8_t *pos;
    uint8_t *end;
};

inline constexpr size_t PBTOOLS_MAX_VARINT_SIZE = 10;

// Bytes of the varint of value: 1 to 10.
inline size_t pbtools_varint_size(uint64_t value)
{
    return (static_cast<size_t>(std::bit_width(value | 1)) * 9 + 64) / 64; // ceil(bits / 7)
}

// Writes the varint at pos_p, which has room for it; returns the byte after it.
inline uint8_t *pbtools_put_varint_unchecked(uint8_t *pos_p, uint64_t value)
{
    while (value >= 0x80) {
        *pos_p++ = static_cast<uint8_t>(value | 0x80);
        value >>= 7;
    }
    *pos_p++ = static_cast<uint8_t>(value);
    return pos_p;
}

inline bool pbtools_put_varint(pbtools_writer_t &w, uint64_t value)
{
    size_t room = static_cast<size_t>(w.end - w.pos);
    if (room < PBTOOLS_MAX_VARINT_SIZE && pbtools_varint_size(value) > room) {
        return false;
    }
    w.pos = pbtools_put_varint_unchecked(w.pos, value);
    return true;
}

inline bool pbtools_put_raw(pbtools_writer_t &w, const void *data_p, size_t size)
{
    if (size > static_cast<size_t>(w.end - w.pos)) {
        return false;
    }
    if (size > 0) {
        memcpy(w.pos, data_p, size);
        w.pos += size;
    }
    return true;
}

// The field's tag; all eight bytes of the table's copy are written when there is room, so
// that the copy has a fixed size.
inline bool pbtools_put_tag(pbtools_writer_t &w, const pbtools_field_desc &field)
{
    if (w.end - w.pos >= static_cast<ptrdiff_t>(sizeof(field.tag))) {
        memcpy(w.pos, field.tag, sizeof(field.tag));
        w.pos += field.tag_size;
        return true;
    }
    return pbtools_put_raw(w, field.tag, field.tag_size);
}

inline bool pbtools_put_varint_field(pbtools_writer_t &w, const pbtools_field_desc &field, uint64_t value)
{
    if (w.end - w.pos >= static_cast<ptrdiff_t>(sizeof(field.tag) + PBTOOLS_MAX_VARINT_SIZE)) {
        memcpy(w.pos, field.tag, sizeof(field.tag));
        w.pos = pbtools_put_varint_unchecked(w.pos + field.tag_size, value);
        return true;
    }
    return pbtools_put_tag(w, field) && pbtools_put_varint(w, value);
}

inline bool pbtools_put_length_delimited_field(pbtools_writer_t &w, const pbtools_field_desc &field,
                                               const void *data_p, size_t size)
{
    constexpr size_t prefix = sizeof(field.tag) + PBTOOLS_MAX_VARINT_SIZE;
    size_t room = static_cast<size_t>(w.end - w.pos);
    if (room >= prefix && size <= room - prefix) {
        memcpy(w.pos, field.tag, sizeof(field.tag));
        w.pos = pbtools_put_varint_unchecked(w.pos + field.tag_size, size);
        memcpy(w.pos, data_p, size);
        w.pos += size;
        return true;
    }
    return pbtools_put_tag(w, field) && pbtools_put_varint(w, size) && pbtools_put_raw(w, data_p, size);
}

// Starts a sub-record: its tag, and one byte kept for its length at *length_pp (enough for a
// sub-record under 128 bytes).
inline bool pbtools_put_nested_open(pbtools_writer_t &w, const pbtools_field_desc &field, uint8_t **length_pp)
{
    if (!pbtools_put_tag(w, field) || w.pos == w.end) {
        return false;
    }
    *length_pp = w.pos++;
    return true;
}

// Ends the sub-record whose length byte is at length_p (out of line: moves the sub-record up
// by the extra length bytes when it is 128 bytes or more).
bool pbtools_put_nested_close_long(pbtools_writer_t &w, uint8_t *length_p);

inline bool pbtools_put_nested_close(pbtools_writer_t &w, uint8_t *length_p)
{
    size_t length = static_cast<size_t>(w.pos - (length_p + 1));
    if (length < 0x80) {
        *length_p = static_cast<uint8_t>(length);
        return true;
    }
    return pbtools_put_nested_close_long(w, length_p);
}

template <const pbtools_message_desc &D>
bool pbtools_encode_record(pbtools_writer_t &w, const void *record_p);

template <typename T> const T &pbtools_member_at(const void *record_p, uint32_t offset)
{
    return *reinterpret_cast<const T *>(static_cast<const char *>(record_p) + offset);
}

// Field I of table D: defaults omitted, every item of a repeated field written.
template <const pbtools_message_desc &D, uint32_t I>
inline bool pbtools_encode_field(pbtools_writer_t &w, const void *record_p)
{
    constexpr const pbtools_field_desc &field = D.fields_p[I];
    if constexpr (field.kind == PBTOOLS_KIND_INT32) {
        int32_t value = pbtools_member_at<int32_t>(record_p, field.offset);
        // Negative values are sign-extended to ten bytes, as every protobuf reader expects.
        return value == 0 ||
               pbtools_put_varint_field(w, field, static_cast<uint64_t>(static_cast<int64_t>(value)));
    } else if constexpr (field.kind == PBTOOLS_KIND_UINT32) {
        uint32_t value = pbtools_member_at<uint32_t>(record_p, field.offset);
        return value == 0 || pbtools_put_varint_field(w, field, value);
    } else if constexpr (field.kind == PBTOOLS_KIND_INT64 || field.kind == PBTOOLS_KIND_UINT64) {
        uint64_t value = pbtools_member_at<uint64_t>(record_p, field.offset);
        return value == 0 || pbtools_put_varint_field(w, field, value);
    } else if constexpr (field.kind == PBTOOLS_KIND_STRING) {
        const char *text_p = pbtools_member_at<const char *>(record_p, field.offset);
        return text_p == nullptr || text_p[0] == '\0' ||
               pbtools_put_length_delimited_field(w, field, text_p, strlen(text_p));
    } else if constexpr (field.kind == PBTOOLS_KIND_BYTES) {
        const pbtools_bytes_t &value = pbtools_member_at<pbtools_bytes_t>(record_p, field.offset);
        return value.buf_p == nullptr || value.size == 0 ||
               pbtools_put_length_delimited_field(w, field, value.buf_p, value.size);
    } else if constexpr (field.kind == PBTOOLS_KIND_MESSAGE) {
        const void *sub_p;
        memcpy(&sub_p, static_cast<const char *>(record_p) + field.offset, sizeof(sub_p));
        uint8_t *length_p;
        return sub_p == nullptr ||
               (pbtools_put_nested_open(w, field, &length_p) &&
                pbtools_encode_record<*field.sub_p>(w, sub_p) && pbtools_put_nested_close(w, length_p));
    } else {
        static_assert(field.kind == PBTOOLS_KIND_REPEATED);
        const pbtools_repeated<char> &repeated =
            pbtools_member_at<pbtools_repeated<char>>(record_p, field.offset);
        const char *items_p;
        memcpy(&items_p,
               static_cast<const char *>(record_p) + field.offset + offsetof(pbtools_repeated<char>, items_p),
               sizeof(items_p));
        int32_t count = items_p == nullptr ? 0 : repeated.length;
        for (int32_t i = 0; i < count; i++) {
            uint8_t *length_p;
            if (!pbtools_put_nested_open(w, field, &length_p) ||
                !pbtools_encode_record<*field.sub_p>(w, items_p + static_cast<size_t>(i) * field.item_size) ||
                !pbtools_put_nested_close(w, length_p)) {
                return false;
            }
        }
        return true;
    }
}

template <const pbtools_message_desc &D, uint32_t... I>
inline bool pbtools_encode_fields(pbtools_writer_t &w, const void *record_p,
                                  std::integer_sequence<uint32_t, I...>)
{
    return (pbtools_encode_field<D, I>(w, record_p) && ...);
}

template <const pbtools_message_desc &D> bool pbtools_encode_record(pbtools_writer_t &w, const void *record_p)
{
    return pbtools_encode_fields<D>(w, record_p, std::make_integer_sequence<uint32_t, D.field_count>{});
}

// Encodes a record of table D into buf_p, defaults omitted, items of repeated fields always
// written. Returns the number of bytes at the start of buf_p, or -4 when it does not fit.
template <const pbtools_message_desc &D>
[[nodiscard]] int pbtools_message_encode_compiled(const void *record_p, uint8_t *buf_p, size_t size)
{
    pbtools_writer_t w = {buf_p, buf_p + (size > 0x7FFFFFFF ? size_t{0x7FFFFFFF} : size)};
    if (!pbtools_encode_record<D>(w, record_p)) {
        return -PBTOOLS_ENCODE_BUFFER_FULL;
    }
    return static_cast<int>(w.pos - buf_p);
}
