// pbtools: the Protocol Buffers codec runtime under every DG message body. It owns the
// workspace heap, the encoder, the decoder and the table walker that the message
// units (req_time_sync, res_time_sync, res_timezone_offset, common_agent_info, command) use.
// Thread-safe: every function works only on the records, buffers and workspace it is given.
#pragma once

#include <cstddef>
#include <cstdint>

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

// Encodes the record into buf_p, defaults omitted, items of repeated fields always written.
// Returns the number of bytes at the start of buf_p, or -4 when it does not fit.
[[nodiscard]] int pbtools_message_encode(const void *record_p, uint8_t *buf_p, size_t size,
                                         const pbtools_message_desc *desc_p);

// Resets the record to its defaults and decodes data into it, allocating from its heap.
// A record made by pbtools_message_new (the one at the start of its workspace) first gets
// back all of its heap beyond itself, so one record can take any number of decodes in turn;
// what earlier decodes or allocations put there is overwritten. Returns size (all of it is
// consumed), or a negated code: -1 bad wire type, -2 data ends inside a field, -3 heap
// exhausted, -5 field number 0, -6 varint over 10 bytes, -8 length of 0x7FFFFFFF or more
// (also for a size of that much). The record is unusable on failure.
[[nodiscard]] int pbtools_message_decode(void *record_p, const uint8_t *data_p, size_t size,
                                         const pbtools_message_desc *desc_p);

// Allocates `length` default items for the repeated field at `offset` and points the field
// at them (0 items leaves it empty). Returns 0, or -3 when the heap is exhausted or length
// is negative; the field is unchanged then.
[[nodiscard]] int pbtools_message_repeated_alloc(void *record_p, const pbtools_message_desc *desc_p,
                                                 size_t offset, int length);

// Allocates a default record for the sub-message field at `offset` and points the field at
// it. Returns 0, or -3 when the heap is exhausted (the field is unchanged).
[[nodiscard]] int pbtools_message_sub_alloc(void *record_p, const pbtools_message_desc *desc_p,
                                            size_t offset);
