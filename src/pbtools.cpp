// pbtools: workspace heap, backwards encoder, bounded decoder and the table walker shared by
// every DG message. Nothing here touches the process heap: records, texts and arrays come
// from the caller's workspace, so a decode is bounded by that area and freed in one step.
#include "pbtools.h"

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

void *pbtools_heap_alloc(pbtools_heap_t *heap_p, size_t size, size_t alignment)
{
    // pos and size are both at most 0x7FFFFFFF, so the rounding cannot wrap.
    size_t pos = (static_cast<size_t>(heap_p->pos) + alignment - 1) & ~(alignment - 1);
    size_t heap_size = static_cast<size_t>(heap_p->size);
    if (pos > heap_size || size > heap_size - pos) {
        return nullptr;
    }
    heap_p->pos = static_cast<int32_t>(pos + size);
    char *block_p = heap_p->buf_p + pos;
    if (size > 0) {
        memset(block_p, 0, size);
    }
    return block_p;
}

// ==== encoder ===================================================================================

void pbtools_encoder_init(pbtools_encoder_t *self_p, uint8_t *buf_p, size_t size)
{
    self_p->buf_p = buf_p;
    self_p->size = static_cast<int32_t>(size > k_length_limit ? k_length_limit : size);
    self_p->pos = self_p->size;
    self_p->error = 0;
}

int pbtools_encoder_get_result(pbtools_encoder_t *self_p)
{
    if (self_p->error != 0) {
        return self_p->error;
    }
    int length = self_p->size - self_p->pos;
    if (length > 0) {
        memmove(self_p->buf_p, self_p->buf_p + self_p->pos, static_cast<size_t>(length));
    }
    return length;
}

namespace
{

void encoder_put(pbtools_encoder_t *self_p, const void *data_p, size_t size)
{
    if (self_p->error != 0 || size == 0) {
        return;
    }
    if (size > static_cast<size_t>(self_p->pos)) {
        self_p->error = -PBTOOLS_ENCODE_BUFFER_FULL;
        return;
    }
    self_p->pos -= static_cast<int32_t>(size);
    memcpy(self_p->buf_p + self_p->pos, data_p, size);
}

void encoder_put_varint(pbtools_encoder_t *self_p, uint64_t value)
{
    uint8_t buf[k_max_varint_size];
    size_t size = 0;
    do {
        buf[size] = static_cast<uint8_t>(value & 0x7F);
        value >>= 7;
        if (value != 0) {
            buf[size] |= 0x80;
        }
        size++;
    } while (value != 0);
    encoder_put(self_p, buf, size);
}

void encoder_put_tag(pbtools_encoder_t *self_p, int field_number, int wire_type)
{
    encoder_put_varint(self_p, (static_cast<uint64_t>(static_cast<uint32_t>(field_number)) << 3) | wire_type);
}

// Writes length and tag in front of what was written since end_pos (backwards order).
void encoder_close_length_delimited(pbtools_encoder_t *self_p, int field_number, int32_t end_pos)
{
    if (self_p->error != 0) {
        return;
    }
    encoder_put_varint(self_p, static_cast<uint64_t>(end_pos - self_p->pos));
    encoder_put_tag(self_p, field_number, WIRE_LENGTH_DELIMITED);
}

void encoder_put_length_delimited(pbtools_encoder_t *self_p, int field_number, const void *data_p,
                                  size_t size)
{
    int32_t end_pos = self_p->pos;
    encoder_put(self_p, data_p, size);
    encoder_close_length_delimited(self_p, field_number, end_pos);
}

} // namespace

void pbtools_encoder_write_int32_always(pbtools_encoder_t *self_p, int field_number, int32_t value)
{
    // Negative values are sign-extended to ten bytes, as every protobuf reader expects.
    encoder_put_varint(self_p, static_cast<uint64_t>(static_cast<int64_t>(value)));
    encoder_put_tag(self_p, field_number, WIRE_VARINT);
}

void pbtools_encoder_write_int32(pbtools_encoder_t *self_p, int field_number, int32_t value)
{
    if (value != 0) {
        pbtools_encoder_write_int32_always(self_p, field_number, value);
    }
}

void pbtools_encoder_write_uint32_always(pbtools_encoder_t *self_p, int field_number, uint32_t value)
{
    encoder_put_varint(self_p, value);
    encoder_put_tag(self_p, field_number, WIRE_VARINT);
}

void pbtools_encoder_write_uint32(pbtools_encoder_t *self_p, int field_number, uint32_t value)
{
    if (value != 0) {
        pbtools_encoder_write_uint32_always(self_p, field_number, value);
    }
}

void pbtools_encoder_write_int64_always(pbtools_encoder_t *self_p, int field_number, int64_t value)
{
    pbtools_encoder_write_uint64_always(self_p, field_number, static_cast<uint64_t>(value));
}

void pbtools_encoder_write_int64(pbtools_encoder_t *self_p, int field_number, int64_t value)
{
    if (value != 0) {
        pbtools_encoder_write_int64_always(self_p, field_number, value);
    }
}

void pbtools_encoder_write_uint64_always(pbtools_encoder_t *self_p, int field_number, uint64_t value)
{
    encoder_put_varint(self_p, value);
    encoder_put_tag(self_p, field_number, WIRE_VARINT);
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

// A view of one message body: [buf_p, buf_p + size). Every read checks the remaining bytes
// first, so no input can move pos beyond size.
struct decoder_t {
    const uint8_t *buf_p;
    size_t size;
    size_t pos;
    pbtools_heap_t *heap_p;
    int error; // 0 or the first negated error code
};

bool decoder_fail(decoder_t *self_p, int code)
{
    if (self_p->error == 0) {
        self_p->error = -code;
    }
    return false;
}

bool decoder_read_varint(decoder_t *self_p, uint64_t *value_p)
{
    uint64_t value = 0;
    for (size_t i = 0; i < k_max_varint_size; i++) {
        if (self_p->pos >= self_p->size) {
            return decoder_fail(self_p, PBTOOLS_OUT_OF_DATA);
        }
        uint8_t byte = self_p->buf_p[self_p->pos++];
        // The tenth byte carries bit 63 only; higher bits are dropped as other readers do.
        value |= static_cast<uint64_t>(byte & 0x7F) << (7 * i);
        if ((byte & 0x80) == 0) {
            *value_p = value;
            return true;
        }
    }
    return decoder_fail(self_p, PBTOOLS_VARINT_OVERFLOW);
}

bool decoder_read_tag(decoder_t *self_p, uint32_t *number_p, int *wire_type_p)
{
    uint64_t tag;
    if (!decoder_read_varint(self_p, &tag)) {
        return false;
    }
    if (tag < 8 || tag > UINT32_MAX) {
        return decoder_fail(self_p, PBTOOLS_BAD_FIELD_NUMBER);
    }
    *number_p = static_cast<uint32_t>(tag >> 3);
    *wire_type_p = static_cast<int>(tag & 7);
    return true;
}

// Reads a length prefix that is known to fit in the remaining data.
bool decoder_read_length(decoder_t *self_p, size_t *length_p)
{
    uint64_t length;
    if (!decoder_read_varint(self_p, &length)) {
        return false;
    }
    if (length >= k_length_limit) {
        return decoder_fail(self_p, PBTOOLS_LENGTH_DELIMITED_OVERFLOW);
    }
    if (length > self_p->size - self_p->pos) {
        return decoder_fail(self_p, PBTOOLS_OUT_OF_DATA);
    }
    *length_p = static_cast<size_t>(length);
    return true;
}

bool decoder_seek(decoder_t *self_p, size_t size)
{
    if (size > self_p->size - self_p->pos) {
        return decoder_fail(self_p, PBTOOLS_OUT_OF_DATA);
    }
    self_p->pos += size;
    return true;
}

bool decoder_skip_field(decoder_t *self_p, int wire_type)
{
    uint64_t ignored;
    size_t length;
    switch (wire_type) {
    case WIRE_VARINT:
        return decoder_read_varint(self_p, &ignored);
    case WIRE_FIXED64:
        return decoder_seek(self_p, 8);
    case WIRE_LENGTH_DELIMITED:
        return decoder_read_length(self_p, &length) && decoder_seek(self_p, length);
    case WIRE_FIXED32:
        return decoder_seek(self_p, 4);
    default: // groups (3, 4) and the undefined 6 and 7
        return decoder_fail(self_p, PBTOOLS_BAD_WIRE_TYPE);
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
    for (uint32_t i = 0; i < desc.field_count; i++) {
        if (desc.fields_p[i].kind == PBTOOLS_KIND_STRING) {
            *member<const char *>(record_p, desc.fields_p[i]) = "";
        }
    }
}

// An array of `count` default records, or null when the heap is exhausted.
void *records_new(pbtools_heap_t *heap_p, const pbtools_message_desc &desc, size_t count)
{
    void *items_p = pbtools_heap_alloc(heap_p, count * desc.record_size, k_record_alignment);
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

// ---- encoding ----

void encode_record(pbtools_encoder_t *enc_p, const void *record_p, const pbtools_message_desc &desc);

// A sub-record is always written with tag and length, even when it encodes to nothing.
void encode_nested(pbtools_encoder_t *enc_p, int number, const void *record_p,
                   const pbtools_message_desc &desc)
{
    int32_t end_pos = enc_p->pos;
    encode_record(enc_p, record_p, desc);
    encoder_close_length_delimited(enc_p, number, end_pos);
}

void encode_field(pbtools_encoder_t *enc_p, const void *record_p, const pbtools_field_desc &field)
{
    int number = static_cast<int>(field.number);
    switch (field.kind) {
    case PBTOOLS_KIND_INT32:
        return pbtools_encoder_write_int32(enc_p, number, *member<int32_t>(record_p, field));
    case PBTOOLS_KIND_UINT32:
        return pbtools_encoder_write_uint32(enc_p, number, *member<uint32_t>(record_p, field));
    case PBTOOLS_KIND_INT64:
        return pbtools_encoder_write_int64(enc_p, number, *member<int64_t>(record_p, field));
    case PBTOOLS_KIND_UINT64:
        return pbtools_encoder_write_uint64(enc_p, number, *member<uint64_t>(record_p, field));
    case PBTOOLS_KIND_STRING:
        return pbtools_encoder_write_string(enc_p, number, *member<const char *>(record_p, field));
    case PBTOOLS_KIND_BYTES:
        return pbtools_encoder_write_bytes(enc_p, number, member<pbtools_bytes_t>(record_p, field));
    case PBTOOLS_KIND_MESSAGE:
        if (const void *sub_p = load_pointer(record_p, field.offset); sub_p != nullptr) {
            encode_nested(enc_p, number, sub_p, *field.sub_p);
        }
        return;
    case PBTOOLS_KIND_REPEATED: {
        const char *items_p = static_cast<const char *>(load_pointer(record_p, items_offset(field)));
        // Backwards, so the items land on the wire in array order.
        for (int32_t i = items_p == nullptr ? 0 : *member<int32_t>(record_p, field);
             i-- > 0 && enc_p->error == 0;) {
            encode_nested(enc_p, number, items_p + static_cast<size_t>(i) * field.item_size, *field.sub_p);
        }
        return;
    }
    }
}

void encode_record(pbtools_encoder_t *enc_p, const void *record_p, const pbtools_message_desc &desc)
{
    for (uint32_t i = desc.field_count; i-- > 0 && enc_p->error == 0;) {
        encode_field(enc_p, record_p, desc.fields_p[i]);
    }
}

// ---- decoding ----

void decode_record(decoder_t *self_p, void *record_p, const pbtools_message_desc &desc);

// Decodes the next `length` bytes into an initialised record.
bool decode_nested(decoder_t *self_p, size_t length, void *record_p, const pbtools_message_desc &desc)
{
    decoder_t sub = {self_p->buf_p + self_p->pos, length, 0, self_p->heap_p, 0};
    decode_record(&sub, record_p, desc);
    self_p->pos += length;
    return sub.error == 0 || decoder_fail(self_p, -sub.error);
}

bool decode_string(decoder_t *self_p, void *record_p, const pbtools_field_desc &field)
{
    size_t length;
    if (!decoder_read_length(self_p, &length)) {
        return false;
    }
    auto *text_p = static_cast<char *>(pbtools_heap_alloc(self_p->heap_p, length + 1, 1));
    if (text_p == nullptr) {
        return decoder_fail(self_p, PBTOOLS_OUT_OF_MEMORY);
    }
    if (length > 0) {
        memcpy(text_p, self_p->buf_p + self_p->pos, length);
    }
    text_p[length] = '\0';
    self_p->pos += length;
    *member<const char *>(record_p, field) = text_p;
    return true;
}

bool decode_bytes(decoder_t *self_p, void *record_p, const pbtools_field_desc &field)
{
    size_t length;
    if (!decoder_read_length(self_p, &length)) {
        return false;
    }
    pbtools_bytes_t value = {nullptr, 0};
    if (length > 0) {
        value.buf_p = static_cast<uint8_t *>(pbtools_heap_alloc(self_p->heap_p, length, 1));
        if (value.buf_p == nullptr) {
            return decoder_fail(self_p, PBTOOLS_OUT_OF_MEMORY);
        }
        memcpy(value.buf_p, self_p->buf_p + self_p->pos, length);
        value.size = length;
        self_p->pos += length;
    }
    *member<pbtools_bytes_t>(record_p, field) = value;
    return true;
}

// A later occurrence replaces the earlier sub-record instead of merging into it.
bool decode_sub_message(decoder_t *self_p, void *record_p, const pbtools_field_desc &field)
{
    size_t length;
    if (!decoder_read_length(self_p, &length)) {
        return false;
    }
    void *sub_p = records_new(self_p->heap_p, *field.sub_p, 1);
    if (sub_p == nullptr) {
        return decoder_fail(self_p, PBTOOLS_OUT_OF_MEMORY);
    }
    store_pointer(record_p, field.offset, sub_p);
    return decode_nested(self_p, length, sub_p, *field.sub_p);
}

// First pass over one field: singular fields are stored, repeated items only counted.
bool decode_field(decoder_t *self_p, void *record_p, const pbtools_field_desc &field)
{
    uint64_t value;
    switch (field.kind) {
    case PBTOOLS_KIND_INT32:
    case PBTOOLS_KIND_UINT32:
    case PBTOOLS_KIND_INT64:
    case PBTOOLS_KIND_UINT64:
        if (!decoder_read_varint(self_p, &value)) {
            return false;
        }
        if (field.kind == PBTOOLS_KIND_INT32 || field.kind == PBTOOLS_KIND_UINT32) {
            *member<uint32_t>(record_p, field) = static_cast<uint32_t>(value); // low 32 bits, as protobuf
        } else {
            *member<uint64_t>(record_p, field) = value;
        }
        return true;
    case PBTOOLS_KIND_STRING:
        return decode_string(self_p, record_p, field);
    case PBTOOLS_KIND_BYTES:
        return decode_bytes(self_p, record_p, field);
    case PBTOOLS_KIND_MESSAGE:
        return decode_sub_message(self_p, record_p, field);
    case PBTOOLS_KIND_REPEATED:
        // Each item takes at least two bytes of a body under 2 GiB: the count cannot overflow.
        (*member<int32_t>(record_p, field))++;
        return decoder_skip_field(self_p, WIRE_LENGTH_DELIMITED);
    }
    return false;
}

int expected_wire_type(pbtools_kind kind)
{
    return kind <= PBTOOLS_KIND_UINT64 ? WIRE_VARINT : WIRE_LENGTH_DELIMITED;
}

// Index of the field with this number, or -1 for an unknown field.
int field_index(const pbtools_message_desc &desc, uint32_t number)
{
    for (uint32_t i = 0; i < desc.field_count; i++) {
        if (desc.fields_p[i].number == number) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

// Returns true when some repeated field has items, which then need the second pass.
bool decode_first_pass(decoder_t *self_p, void *record_p, const pbtools_message_desc &desc)
{
    bool has_items = false;
    uint32_t number;
    int wire_type;
    while (self_p->pos < self_p->size && decoder_read_tag(self_p, &number, &wire_type)) {
        int index = field_index(desc, number);
        if (index < 0) {
            decoder_skip_field(self_p, wire_type);
        } else if (wire_type != expected_wire_type(desc.fields_p[index].kind)) {
            decoder_fail(self_p, PBTOOLS_BAD_WIRE_TYPE);
        } else {
            decode_field(self_p, record_p, desc.fields_p[index]);
            has_items = has_items || desc.fields_p[index].kind == PBTOOLS_KIND_REPEATED;
        }
        if (self_p->error != 0) {
            return false;
        }
    }
    return has_items && self_p->error == 0;
}

// One exactly sized array per repeated field, from the counts of the first pass.
bool alloc_item_arrays(decoder_t *self_p, void *record_p, const pbtools_message_desc &desc)
{
    for (uint32_t i = 0; i < desc.field_count; i++) {
        const pbtools_field_desc &field = desc.fields_p[i];
        int32_t count = field.kind == PBTOOLS_KIND_REPEATED ? *member<int32_t>(record_p, field) : 0;
        if (count > 0) {
            void *items_p = records_new(self_p->heap_p, *field.sub_p, static_cast<size_t>(count));
            if (items_p == nullptr) {
                return decoder_fail(self_p, PBTOOLS_OUT_OF_MEMORY);
            }
            store_pointer(record_p, items_offset(field), items_p);
        }
    }
    return true;
}

// Second pass: the tags were all checked by the first one; only repeated items are decoded.
void decode_second_pass(decoder_t *self_p, void *record_p, const pbtools_message_desc &desc)
{
    int32_t filled[PBTOOLS_MAX_FIELDS] = {};
    uint32_t number;
    int wire_type;
    size_t length;
    self_p->pos = 0;
    while (self_p->error == 0 && self_p->pos < self_p->size &&
           decoder_read_tag(self_p, &number, &wire_type)) {
        int index = field_index(desc, number);
        if (index < 0 || desc.fields_p[index].kind != PBTOOLS_KIND_REPEATED) {
            decoder_skip_field(self_p, wire_type);
            continue;
        }
        const pbtools_field_desc &field = desc.fields_p[index];
        if (filled[index] >= *member<int32_t>(record_p, field) || !decoder_read_length(self_p, &length)) {
            decoder_fail(self_p, PBTOOLS_OUT_OF_DATA); // cannot happen: same bytes as the first pass
            return;
        }
        char *items_p = static_cast<char *>(load_pointer(record_p, items_offset(field)));
        decode_nested(self_p, length, items_p + static_cast<size_t>(filled[index]++) * field.item_size,
                      *field.sub_p);
    }
}

void decode_record(decoder_t *self_p, void *record_p, const pbtools_message_desc &desc)
{
    if (decode_first_pass(self_p, record_p, desc) && alloc_item_arrays(self_p, record_p, desc)) {
        decode_second_pass(self_p, record_p, desc);
    }
}

} // namespace

void *pbtools_message_new(void *workspace_p, size_t size, const pbtools_message_desc *desc_p)
{
    pbtools_heap_t *heap_p = pbtools_heap_new(workspace_p, size);
    return heap_p == nullptr ? nullptr : records_new(heap_p, *desc_p, 1);
}

int pbtools_message_encode(const void *record_p, uint8_t *buf_p, size_t size,
                           const pbtools_message_desc *desc_p)
{
    pbtools_encoder_t encoder;
    pbtools_encoder_init(&encoder, buf_p, size);
    encode_record(&encoder, record_p, *desc_p);
    return pbtools_encoder_get_result(&encoder);
}

int pbtools_message_decode(void *record_p, const uint8_t *data_p, size_t size,
                           const pbtools_message_desc *desc_p)
{
    pbtools_heap_t *heap_p = *static_cast<pbtools_heap_t **>(record_p);
    record_init(record_p, heap_p, *desc_p);
    if (size >= k_length_limit) {
        return -PBTOOLS_LENGTH_DELIMITED_OVERFLOW;
    }
    if (data_p == nullptr && size > 0) {
        return -PBTOOLS_OUT_OF_DATA;
    }
    decoder_t decoder = {data_p, size, 0, heap_p, 0};
    decode_record(&decoder, record_p, *desc_p);
    return decoder.error != 0 ? decoder.error : static_cast<int>(size);
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
