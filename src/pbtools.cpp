// pbtools: workspace heap, forward encoder, bounded decoder and the table walker shared by
// every DG message. Nothing here touches the process heap: records, texts and arrays come
// from the caller's workspace, so a decode is bounded by that area and freed in one step.
#include "pbtools.h"

#include <algorithm>
#include <bit>
#include <cstring>

namespace
{

enum wire_type : int { WIRE_VARINT = 0, WIRE_FIXED64 = 1, WIRE_LENGTH_DELIMITED = 2, WIRE_FIXED32 = 5 };

constexpr const char *k_error_texts[] = {
    "Ok",
    "Bad wire type",
    "Out of data",
    "Out of memory",
    "Encode buffer full",
    "Bad field number",
    "Varint overflow",
    "Seek overflow",
    "Length delimited overflow",
};

// Lengths at or above this are refused before any arithmetic uses them.
constexpr uint64_t k_length_limit = 0x7FFFFFFF;
constexpr size_t k_max_varint_size = 10;

} // namespace

const char *pbtools_error_code_to_string(int code)
{
    // Negate in 64 bits: INT32_MIN has no 32-bit opposite.
    int64_t magnitude = code < 0 ? -static_cast<int64_t>(code) : code;
    if (magnitude >= static_cast<int64_t>(sizeof(k_error_texts) / sizeof(k_error_texts[0]))) {
        return "Unknown error";
    }
    return k_error_texts[magnitude];
}

// ==== workspace heap ==========================================================================

pbtools_heap_t *pbtools_heap_new(void *buf_p, size_t size)
{
    if (buf_p == nullptr) {
        return nullptr;
    }
    size_t skip = (8 - reinterpret_cast<uintptr_t>(buf_p) % 8) % 8;
    if (size < skip + sizeof(pbtools_heap_t)) {
        return nullptr;
    }
    size -= skip;
    if (size > k_length_limit) {
        size = k_length_limit;
    }
    auto *heap_p = reinterpret_cast<pbtools_heap_t *>(static_cast<char *>(buf_p) + skip);
    heap_p->buf_p = reinterpret_cast<char *>(heap_p);
    heap_p->size = static_cast<int32_t>(size);
    heap_p->pos = sizeof(pbtools_heap_t);
    return heap_p;
}

void *pbtools_heap_alloc_uninit(pbtools_heap_t *heap_p, size_t size, size_t alignment)
{
    // pos and size are both at most 0x7FFFFFFF, so the rounding cannot wrap.
    size_t pos = (static_cast<size_t>(heap_p->pos) + alignment - 1) & ~(alignment - 1);
    size_t heap_size = static_cast<size_t>(heap_p->size);
    if (pos > heap_size || size > heap_size - pos) {
        return nullptr;
    }
    heap_p->pos = static_cast<int32_t>(pos + size);
    return heap_p->buf_p + pos;
}

void *pbtools_heap_alloc(pbtools_heap_t *heap_p, size_t size, size_t alignment)
{
    void *block_p = pbtools_heap_alloc_uninit(heap_p, size, alignment);
    if (block_p != nullptr && size > 0) {
        memset(block_p, 0, size);
    }
    return block_p;
}

// ==== encoder ===================================================================================

namespace
{

// Runs one primitive write on the encoder and latches a failure.
template <typename Put> void encoder_apply(pbtools_encoder_t *self_p, Put put)
{
    if (self_p->error != 0) {
        return;
    }
    pbtools_writer_t w = {self_p->buf_p + self_p->pos, self_p->buf_p + self_p->size};
    if (put(w)) {
        self_p->pos = static_cast<int32_t>(w.pos - self_p->buf_p);
    } else {
        self_p->error = -PBTOOLS_ENCODE_BUFFER_FULL;
    }
}

void encoder_put_varint_field(pbtools_encoder_t *self_p, int field_number, uint64_t value)
{
    uint64_t tag = static_cast<uint64_t>(static_cast<uint32_t>(field_number)) << 3 | WIRE_VARINT;
    encoder_apply(self_p, [&](pbtools_writer_t &w) {
        return pbtools_put_varint(w, tag) && pbtools_put_varint(w, value);
    });
}

void encoder_put_length_delimited(pbtools_encoder_t *self_p, int field_number, const void *data_p,
                                  size_t size)
{
    uint64_t tag = static_cast<uint64_t>(static_cast<uint32_t>(field_number)) << 3 | WIRE_LENGTH_DELIMITED;
    encoder_apply(self_p, [&](pbtools_writer_t &w) {
        return pbtools_put_varint(w, tag) && pbtools_put_varint(w, size) && pbtools_put_raw(w, data_p, size);
    });
}

} // namespace

// A sub-record's length is not known before it is written: one byte was kept for it; a
// longer sub-record is moved up by the extra length bytes once its size is known.
bool pbtools_put_nested_close_long(pbtools_writer_t &w, uint8_t *length_p)
{
    size_t length = static_cast<size_t>(w.pos - (length_p + 1));
    size_t extra = pbtools_varint_size(length) - 1;
    if (extra > static_cast<size_t>(w.end - w.pos)) {
        return false;
    }
    memmove(length_p + 1 + extra, length_p + 1, length);
    pbtools_put_varint_unchecked(length_p, length);
    w.pos += extra;
    return true;
}

void pbtools_encoder_init(pbtools_encoder_t *self_p, uint8_t *buf_p, size_t size)
{
    self_p->buf_p = buf_p;
    self_p->size = static_cast<int32_t>(size > k_length_limit ? k_length_limit : size);
    self_p->pos = 0;
    self_p->error = 0;
}

int pbtools_encoder_get_result(pbtools_encoder_t *self_p)
{
    return self_p->error != 0 ? self_p->error : self_p->pos;
}

void pbtools_encoder_write_int32_always(pbtools_encoder_t *self_p, int field_number, int32_t value)
{
    // Negative values are sign-extended to ten bytes, as every protobuf reader expects.
    encoder_put_varint_field(self_p, field_number, static_cast<uint64_t>(static_cast<int64_t>(value)));
}

void pbtools_encoder_write_int32(pbtools_encoder_t *self_p, int field_number, int32_t value)
{
    if (value != 0) {
        pbtools_encoder_write_int32_always(self_p, field_number, value);
    }
}

void pbtools_encoder_write_uint32_always(pbtools_encoder_t *self_p, int field_number, uint32_t value)
{
    encoder_put_varint_field(self_p, field_number, value);
}

void pbtools_encoder_write_uint32(pbtools_encoder_t *self_p, int field_number, uint32_t value)
{
    if (value != 0) {
        pbtools_encoder_write_uint32_always(self_p, field_number, value);
    }
}

void pbtools_encoder_write_int64_always(pbtools_encoder_t *self_p, int field_number, int64_t value)
{
    encoder_put_varint_field(self_p, field_number, static_cast<uint64_t>(value));
}

void pbtools_encoder_write_int64(pbtools_encoder_t *self_p, int field_number, int64_t value)
{
    if (value != 0) {
        pbtools_encoder_write_int64_always(self_p, field_number, value);
    }
}

void pbtools_encoder_write_uint64_always(pbtools_encoder_t *self_p, int field_number, uint64_t value)
{
    encoder_put_varint_field(self_p, field_number, value);
}

void pbtools_encoder_write_uint64(pbtools_encoder_t *self_p, int field_number, uint64_t value)
{
    if (value != 0) {
        pbtools_encoder_write_uint64_always(self_p, field_number, value);
    }
}

void pbtools_encoder_write_string_always(pbtools_encoder_t *self_p, int field_number, const char *value_p)
{
    size_t size = value_p == nullptr ? 0 : strlen(value_p);
    encoder_put_length_delimited(self_p, field_number, value_p, size);
}

void pbtools_encoder_write_string(pbtools_encoder_t *self_p, int field_number, const char *value_p)
{
    if (value_p != nullptr && value_p[0] != '\0') {
        pbtools_encoder_write_string_always(self_p, field_number, value_p);
    }
}

void pbtools_encoder_write_bytes_always(pbtools_encoder_t *self_p, int field_number,
                                        const pbtools_bytes_t *value_p)
{
    size_t size = value_p->buf_p == nullptr ? 0 : value_p->size;
    encoder_put_length_delimited(self_p, field_number, value_p->buf_p, size);
}

void pbtools_encoder_write_bytes(pbtools_encoder_t *self_p, int field_number, const pbtools_bytes_t *value_p)
{
    if (value_p->buf_p != nullptr && value_p->size > 0) {
        pbtools_encoder_write_bytes_always(self_p, field_number, value_p);
    }
}

// ==== decoder ====================================================================================

namespace
{

// The unread part of one message body, [pos, end). Every read checks the remaining bytes
// first, so no input can move pos beyond end. Reads return 0 or a negated error code.
struct reader_t {
    const uint8_t *pos;
    const uint8_t *end;
};

[[gnu::noinline]] int read_varint_slow(reader_t &r, uint64_t *value_p)
{
    uint64_t value = 0;
    for (size_t i = 0; i < k_max_varint_size; i++) {
        if (r.pos == r.end) {
            return -PBTOOLS_OUT_OF_DATA;
        }
        uint8_t byte = *r.pos++;
        // The tenth byte carries bit 63 only; higher bits are dropped as other readers do.
        value |= static_cast<uint64_t>(byte & 0x7F) << (7 * i);
        if ((byte & 0x80) == 0) {
            *value_p = value;
            return 0;
        }
    }
    return -PBTOOLS_VARINT_OVERFLOW;
}

inline int read_varint(reader_t &r, uint64_t *value_p)
{
    if (r.pos != r.end && *r.pos < 0x80) {
        *value_p = *r.pos++;
        return 0;
    }
    return read_varint_slow(r, value_p);
}

// Reads a length prefix that is known to fit in the remaining data.
inline int read_length(reader_t &r, size_t *length_p)
{
    uint64_t length;
    if (int rc = read_varint(r, &length); rc != 0) {
        return rc;
    }
    if (length >= k_length_limit) {
        return -PBTOOLS_LENGTH_DELIMITED_OVERFLOW;
    }
    if (length > static_cast<size_t>(r.end - r.pos)) {
        return -PBTOOLS_OUT_OF_DATA;
    }
    *length_p = static_cast<size_t>(length);
    return 0;
}

int seek(reader_t &r, size_t size)
{
    if (size > static_cast<size_t>(r.end - r.pos)) {
        return -PBTOOLS_OUT_OF_DATA;
    }
    r.pos += size;
    return 0;
}

int skip_field(reader_t &r, int wire_type)
{
    uint64_t ignored;
    size_t length;
    switch (wire_type) {
    case WIRE_VARINT:
        return read_varint(r, &ignored);
    case WIRE_FIXED64:
        return seek(r, 8);
    case WIRE_LENGTH_DELIMITED: {
        int rc = read_length(r, &length);
        return rc != 0 ? rc : seek(r, length);
    }
    case WIRE_FIXED32:
        return seek(r, 4);
    default: // groups (3, 4) and the undefined 6 and 7
        return -PBTOOLS_BAD_WIRE_TYPE;
    }
}

} // namespace

// ==== table walker ===============================================================================

namespace
{

static_assert(offsetof(pbtools_repeated<char>, items_p) ==
                  offsetof(pbtools_repeated<pbtools_map_entry_t>, items_p),
              "every repeated field has the same layout, whatever its item record");

constexpr size_t k_record_alignment = 8;

// Members are reached by their table offset. Pointers to records are copied bytewise, since
// their declared pointee type differs from one record to the next.
template <typename T> T *member(void *record_p, const pbtools_field_desc &field)
{
    return reinterpret_cast<T *>(static_cast<char *>(record_p) + field.offset);
}

template <typename T> const T *member(const void *record_p, const pbtools_field_desc &field)
{
    return reinterpret_cast<const T *>(static_cast<const char *>(record_p) + field.offset);
}

void *load_pointer(const void *record_p, size_t offset)
{
    void *pointer_p;
    memcpy(&pointer_p, static_cast<const char *>(record_p) + offset, sizeof(pointer_p));
    return pointer_p;
}

void store_pointer(void *record_p, size_t offset, void *pointer_p)
{
    memcpy(static_cast<char *>(record_p) + offset, &pointer_p, sizeof(pointer_p));
}

constexpr size_t items_offset(const pbtools_field_desc &field)
{
    return field.offset + offsetof(pbtools_repeated<char>, items_p);
}

void record_init(void *record_p, pbtools_heap_t *heap_p, const pbtools_message_desc &desc)
{
    memset(record_p, 0, desc.record_size);
    *static_cast<pbtools_heap_t **>(record_p) = heap_p; // every record starts with its heap
    for (uint64_t words = desc.string_words; words != 0; words &= words - 1) {
        *reinterpret_cast<const char **>(static_cast<char *>(record_p) + 8 * std::countr_zero(words)) = "";
    }
}

// An array of `count` default records, or null when the heap is exhausted.
void *records_new(pbtools_heap_t *heap_p, const pbtools_message_desc &desc, size_t count)
{
    void *items_p = pbtools_heap_alloc_uninit(heap_p, count * desc.record_size, k_record_alignment);
    if (items_p == nullptr) {
        return nullptr;
    }
    for (size_t i = 0; i < count; i++) {
        record_init(static_cast<char *>(items_p) + i * desc.record_size, heap_p, desc);
    }
    return items_p;
}

const pbtools_field_desc *find_field(const pbtools_message_desc &desc, size_t offset, pbtools_kind kind)
{
    for (uint32_t i = 0; i < desc.field_count; i++) {
        if (desc.fields_p[i].offset == offset && desc.fields_p[i].kind == kind) {
            return &desc.fields_p[i];
        }
    }
    return nullptr;
}

// ---- decoding ----
// One pass over the body stores every singular field as it comes; items of repeated fields
// are only counted and skipped. When there were any, one exactly sized array per repeated
// field is allocated and a second pass, over the stretch from the first item to the last,
// decodes the items into them.

int decode_record(const uint8_t *data_p, const uint8_t *end_p, pbtools_heap_t *heap_p, void *record_p,
                  const pbtools_message_desc &desc);

// The table entry of a field number, or null for an unknown field.
inline const pbtools_field_desc *field_of(const pbtools_message_desc &desc, uint32_t number)
{
    if (number < PBTOOLS_DIRECT_NUMBERS) {
        uint8_t index = desc.index[number];
        return index == PBTOOLS_NO_FIELD ? nullptr : &desc.fields_p[index];
    }
    if (number > desc.max_number) {
        return nullptr;
    }
    for (uint32_t i = 0; i < desc.field_count; i++) {
        if (desc.fields_p[i].number == number) {
            return &desc.fields_p[i];
        }
    }
    return nullptr;
}

inline int read_tag(reader_t &r, uint32_t *number_p, int *wire_type_p)
{
    uint64_t tag;
    if (int rc = read_varint(r, &tag); rc != 0) {
        return rc;
    }
    if (tag < 8 || tag > UINT32_MAX) {
        return -PBTOOLS_BAD_FIELD_NUMBER;
    }
    *number_p = static_cast<uint32_t>(tag >> 3);
    *wire_type_p = static_cast<int>(tag & 7);
    return 0;
}

int decode_string(reader_t &r, pbtools_heap_t *heap_p, void *record_p, const pbtools_field_desc &field)
{
    size_t length;
    if (int rc = read_length(r, &length); rc != 0) {
        return rc;
    }
    auto *text_p = static_cast<char *>(pbtools_heap_alloc_uninit(heap_p, length + 1, 1));
    if (text_p == nullptr) {
        return -PBTOOLS_OUT_OF_MEMORY;
    }
    memcpy(text_p, r.pos, length);
    text_p[length] = '\0';
    r.pos += length;
    *member<const char *>(record_p, field) = text_p;
    return 0;
}

int decode_bytes(reader_t &r, pbtools_heap_t *heap_p, void *record_p, const pbtools_field_desc &field)
{
    size_t length;
    if (int rc = read_length(r, &length); rc != 0) {
        return rc;
    }
    pbtools_bytes_t value = {nullptr, 0};
    if (length > 0) {
        value.buf_p = static_cast<uint8_t *>(pbtools_heap_alloc_uninit(heap_p, length, 1));
        if (value.buf_p == nullptr) {
            return -PBTOOLS_OUT_OF_MEMORY;
        }
        memcpy(value.buf_p, r.pos, length);
        value.size = length;
        r.pos += length;
    }
    *member<pbtools_bytes_t>(record_p, field) = value;
    return 0;
}

// A later occurrence replaces the earlier sub-record instead of merging into it.
int decode_sub_message(reader_t &r, pbtools_heap_t *heap_p, void *record_p, const pbtools_field_desc &field)
{
    size_t length;
    if (int rc = read_length(r, &length); rc != 0) {
        return rc;
    }
    void *sub_p = records_new(heap_p, *field.sub_p, 1);
    if (sub_p == nullptr) {
        return -PBTOOLS_OUT_OF_MEMORY;
    }
    store_pointer(record_p, field.offset, sub_p);
    const uint8_t *sub_end_p = r.pos + length;
    int rc = decode_record(r.pos, sub_end_p, heap_p, sub_p, *field.sub_p);
    r.pos = sub_end_p;
    return rc;
}

int expected_wire_type(pbtools_kind kind)
{
    return kind <= PBTOOLS_KIND_UINT64 ? WIRE_VARINT : WIRE_LENGTH_DELIMITED;
}

// One exactly sized array per repeated field, from the counts of the first pass.
int alloc_item_arrays(pbtools_heap_t *heap_p, void *record_p, const pbtools_message_desc &desc)
{
    for (uint32_t i = 0; i < desc.field_count; i++) {
        const pbtools_field_desc &field = desc.fields_p[i];
        int32_t count = field.kind == PBTOOLS_KIND_REPEATED ? *member<int32_t>(record_p, field) : 0;
        if (count > 0) {
            void *items_p = records_new(heap_p, *field.sub_p, static_cast<size_t>(count));
            if (items_p == nullptr) {
                return -PBTOOLS_OUT_OF_MEMORY;
            }
            store_pointer(record_p, items_offset(field), items_p);
        }
    }
    return 0;
}

// Second pass over bytes the first one checked: only repeated items are decoded.
int decode_items(reader_t r, pbtools_heap_t *heap_p, void *record_p, const pbtools_message_desc &desc)
{
    int32_t filled[PBTOOLS_MAX_FIELDS] = {};
    uint32_t number;
    int wire_type;
    size_t length;
    while (r.pos != r.end) {
        if (int rc = read_tag(r, &number, &wire_type); rc != 0) {
            return rc;
        }
        const pbtools_field_desc *field_p = field_of(desc, number);
        if (field_p == nullptr || field_p->kind != PBTOOLS_KIND_REPEATED) {
            if (int rc = skip_field(r, wire_type); rc != 0) {
                return rc;
            }
            continue;
        }
        size_t index = static_cast<size_t>(field_p - desc.fields_p);
        if (filled[index] >= *member<int32_t>(record_p, *field_p) || read_length(r, &length) != 0) {
            return -PBTOOLS_OUT_OF_DATA; // cannot happen: same bytes as the first pass
        }
        char *items_p = static_cast<char *>(load_pointer(record_p, items_offset(*field_p)));
        const uint8_t *item_end_p = r.pos + length;
        if (int rc = decode_record(r.pos, item_end_p, heap_p,
                                   items_p + static_cast<size_t>(filled[index]++) * field_p->item_size,
                                   *field_p->sub_p);
            rc != 0) {
            return rc;
        }
        r.pos = item_end_p;
    }
    return 0;
}

int decode_record(const uint8_t *data_p, const uint8_t *end_p, pbtools_heap_t *heap_p, void *record_p,
                  const pbtools_message_desc &desc)
{
    reader_t r = {data_p, end_p};
    const uint8_t *items_begin_p = nullptr; // tag of the first repeated item
    const uint8_t *items_end_p = nullptr;   // end of the last one
    uint32_t number;
    int wire_type;
    uint64_t value;
    size_t length;
    while (r.pos != r.end) {
        const uint8_t *tag_p = r.pos;
        int rc = read_tag(r, &number, &wire_type);
        if (rc != 0) {
            return rc;
        }
        const pbtools_field_desc *field_p = field_of(desc, number);
        if (field_p == nullptr) {
            rc = skip_field(r, wire_type);
        } else if (wire_type != expected_wire_type(field_p->kind)) {
            rc = -PBTOOLS_BAD_WIRE_TYPE;
        } else {
            switch (field_p->kind) {
            case PBTOOLS_KIND_INT32:
            case PBTOOLS_KIND_UINT32:
                // The low 32 bits, as protobuf keeps them.
                if (rc = read_varint(r, &value); rc == 0) {
                    *member<uint32_t>(record_p, *field_p) = static_cast<uint32_t>(value);
                }
                break;
            case PBTOOLS_KIND_INT64:
            case PBTOOLS_KIND_UINT64:
                if (rc = read_varint(r, &value); rc == 0) {
                    *member<uint64_t>(record_p, *field_p) = value;
                }
                break;
            case PBTOOLS_KIND_STRING:
                rc = decode_string(r, heap_p, record_p, *field_p);
                break;
            case PBTOOLS_KIND_BYTES:
                rc = decode_bytes(r, heap_p, record_p, *field_p);
                break;
            case PBTOOLS_KIND_MESSAGE:
                rc = decode_sub_message(r, heap_p, record_p, *field_p);
                break;
            case PBTOOLS_KIND_REPEATED:
                // Each item takes at least two bytes of a body under 2 GiB: the count cannot overflow.
                (*member<int32_t>(record_p, *field_p))++;
                rc = read_length(r, &length);
                if (rc == 0) {
                    r.pos += length;
                    items_begin_p = items_begin_p == nullptr ? tag_p : items_begin_p;
                    items_end_p = r.pos;
                }
                break;
            }
        }
        if (rc != 0) {
            return rc;
        }
    }
    if (items_begin_p == nullptr) {
        return 0;
    }
    if (int rc = alloc_item_arrays(heap_p, record_p, desc); rc != 0) {
        return rc;
    }
    return decode_items({items_begin_p, items_end_p}, heap_p, record_p, desc);
}

} // namespace

namespace
{

// The largest record a message can hold below itself (sub-messages and items, any depth).
uint32_t largest_nested_record(const pbtools_message_desc &desc, int depth)
{
    uint32_t largest = 0;
    for (uint32_t i = 0; i < desc.field_count && depth > 0; i++) {
        const pbtools_field_desc &field = desc.fields_p[i];
        if (field.kind == PBTOOLS_KIND_MESSAGE || field.kind == PBTOOLS_KIND_REPEATED) {
            largest = std::max({largest, field.item_size, largest_nested_record(*field.sub_p, depth - 1)});
        }
    }
    return largest;
}

} // namespace

size_t pbtools_decode_workspace_size(const pbtools_message_desc *desc_p, size_t size)
{
    // Every allocation of a decode follows a tag and a length of its own (two bytes at least):
    // a nested record (an item array counts as one record per item) or a text of at most one
    // byte more than its content, which took its two bytes as well.
    constexpr int k_nesting_limit = 16;
    const size_t per_two_bytes =
        std::max<size_t>(largest_nested_record(*desc_p, k_nesting_limit) + k_record_alignment - 1, 2);
    return sizeof(pbtools_heap_t) + k_record_alignment - 1 + desc_p->record_size + (size / 2 + 1) * per_two_bytes;
}

void *pbtools_message_new(void *workspace_p, size_t size, const pbtools_message_desc *desc_p)
{
    pbtools_heap_t *heap_p = pbtools_heap_new(workspace_p, size);
    return heap_p == nullptr ? nullptr : records_new(heap_p, *desc_p, 1);
}

int pbtools_message_decode(void *record_p, const uint8_t *data_p, size_t size,
                           const pbtools_message_desc *desc_p)
{
    pbtools_heap_t *heap_p = *static_cast<pbtools_heap_t **>(record_p);
    // The record pbtools_message_new placed first in its workspace owns everything after it.
    if (static_cast<char *>(record_p) == heap_p->buf_p + sizeof(pbtools_heap_t)) {
        heap_p->pos = static_cast<int32_t>(sizeof(pbtools_heap_t) + desc_p->record_size);
    }
    record_init(record_p, heap_p, *desc_p);
    if (size >= k_length_limit) {
        return -PBTOOLS_LENGTH_DELIMITED_OVERFLOW;
    }
    if (data_p == nullptr && size > 0) {
        return -PBTOOLS_OUT_OF_DATA;
    }
    int rc = decode_record(data_p, data_p + size, heap_p, record_p, *desc_p);
    return rc != 0 ? rc : static_cast<int>(size);
}

int pbtools_message_repeated_alloc(void *record_p, const pbtools_message_desc *desc_p, size_t offset,
                                   int length)
{
    const pbtools_field_desc *field_p = find_field(*desc_p, offset, PBTOOLS_KIND_REPEATED);
    if (field_p == nullptr || length < 0) {
        return -PBTOOLS_OUT_OF_MEMORY;
    }
    void *items_p = nullptr;
    if (length > 0) {
        items_p = records_new(*static_cast<pbtools_heap_t **>(record_p), *field_p->sub_p,
                              static_cast<size_t>(length));
        if (items_p == nullptr) {
            return -PBTOOLS_OUT_OF_MEMORY;
        }
    }
    *member<int32_t>(record_p, *field_p) = length;
    store_pointer(record_p, items_offset(*field_p), items_p);
    return 0;
}

int pbtools_message_sub_alloc(void *record_p, const pbtools_message_desc *desc_p, size_t offset)
{
    const pbtools_field_desc *field_p = find_field(*desc_p, offset, PBTOOLS_KIND_MESSAGE);
    if (field_p == nullptr) {
        return -PBTOOLS_OUT_OF_MEMORY;
    }
    void *sub_p = records_new(*static_cast<pbtools_heap_t **>(record_p), *field_p->sub_p, 1);
    if (sub_p == nullptr) {
        return -PBTOOLS_OUT_OF_MEMORY;
    }
    store_pointer(record_p, offset, sub_p);
    return 0;
}
