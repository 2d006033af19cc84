// quil-dg-sim output: the one-line JSON events on standard output, the reflection-based
// printer of message bodies and the lenient decoder behind it. Called by the connection
// threads (recv/sent lines) and the command loop.
#include "dg_sim.h"

#include <cassert>
#include <cinttypes>
#include <cmath>
#include <cstdio>

#include <google/protobuf/descriptor.pb.h>
#include <google/protobuf/dynamic_message.h>

#include "dg_protocol.pb.h"

namespace dg_sim
{

namespace gp = google::protobuf;

namespace
{

std::mutex s_output_lock;

// Length of the valid UTF-8 sequence at s[i], or 0 when the byte there does not start one
// (overlong forms, surrogates and code points above U+10FFFF count as invalid).
size_t utf8_sequence(std::string_view s, size_t i)
{
    auto byte = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
    unsigned char c = byte(i);
    size_t n;
    uint32_t cp;
    if (c >= 0xC2 && c <= 0xDF)
        n = 2, cp = c & 0x1F;
    else if (c >= 0xE0 && c <= 0xEF)
        n = 3, cp = c & 0x0F;
    else if (c >= 0xF0 && c <= 0xF4)
        n = 4, cp = c & 0x07;
    else
        return 0;
    if (i + n > s.size())
        return 0;
    for (size_t k = 1; k < n; k++) {
        if ((byte(i + k) & 0xC0) != 0x80)
            return 0;
        cp = cp << 6 | (byte(i + k) & 0x3F);
    }
    if ((n == 3 && (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF))) || (n == 4 && (cp < 0x10000 || cp > 0x10FFFF)))
        return 0;
    return n;
}

// The reference schema again, with every string field turned into bytes and every map into a
// repeated entry message: the wire format is the same, but decoding no longer rejects text
// that is not UTF-8, and map entries keep their order and duplicates.
struct lenient_schema {
    gp::DescriptorPool pool;
    std::unique_ptr<gp::DynamicMessageFactory> factory;

    static void loosen(gp::DescriptorProto *message)
    {
        for (gp::FieldDescriptorProto &f : *message->mutable_field())
            if (f.type() == gp::FieldDescriptorProto::TYPE_STRING)
                f.set_type(gp::FieldDescriptorProto::TYPE_BYTES);
        for (gp::DescriptorProto &nested : *message->mutable_nested_type()) {
            if (nested.has_options())
                nested.mutable_options()->clear_map_entry();
            loosen(&nested);
        }
    }

    lenient_schema()
    {
        gp::FileDescriptorProto file;
        dg::req_command_message::descriptor()->file()->CopyTo(&file);
        for (gp::DescriptorProto &message : *file.mutable_message_type())
            loosen(&message);
        const gp::FileDescriptor *built = pool.BuildFile(file);
        assert(built != nullptr && "the loosened schema is still a valid schema");
        (void)built;
        factory = std::make_unique<gp::DynamicMessageFactory>(&pool);
    }
};

const lenient_schema &lenient()
{
    static lenient_schema schema;  // built once, on first use; thread-safe initialisation
    return schema;
}

void value_json(std::string &out, const gp::Message &m, const gp::FieldDescriptor *f,
                const gp::FieldDescriptor *orig, int index, json_notes *notes)
{
    const gp::Reflection *r = m.GetReflection();
    bool rep = index >= 0;
    char number[32];
    switch (f->cpp_type()) {
    case gp::FieldDescriptor::CPPTYPE_INT32:
        out += std::to_string(rep ? r->GetRepeatedInt32(m, f, index) : r->GetInt32(m, f));
        break;
    case gp::FieldDescriptor::CPPTYPE_INT64:
        out += std::to_string(rep ? r->GetRepeatedInt64(m, f, index) : r->GetInt64(m, f));
        break;
    case gp::FieldDescriptor::CPPTYPE_UINT32:
        out += std::to_string(rep ? r->GetRepeatedUInt32(m, f, index) : r->GetUInt32(m, f));
        break;
    case gp::FieldDescriptor::CPPTYPE_UINT64:
        out += std::to_string(rep ? r->GetRepeatedUInt64(m, f, index) : r->GetUInt64(m, f));
        break;
    case gp::FieldDescriptor::CPPTYPE_ENUM:
        out += std::to_string(rep ? r->GetRepeatedEnumValue(m, f, index) : r->GetEnumValue(m, f));
        break;
    case gp::FieldDescriptor::CPPTYPE_BOOL:
        out += (rep ? r->GetRepeatedBool(m, f, index) : r->GetBool(m, f)) ? "true" : "false";
        break;
    case gp::FieldDescriptor::CPPTYPE_FLOAT:
    case gp::FieldDescriptor::CPPTYPE_DOUBLE: {
        double v = f->cpp_type() == gp::FieldDescriptor::CPPTYPE_FLOAT
                       ? (rep ? r->GetRepeatedFloat(m, f, index) : r->GetFloat(m, f))
                       : (rep ? r->GetRepeatedDouble(m, f, index) : r->GetDouble(m, f));
        if (std::isfinite(v)) {
            snprintf(number, sizeof number, "%.17g", v);
            out += number;
        } else {
            out += "null";
        }
        break;
    }
    case gp::FieldDescriptor::CPPTYPE_STRING: {
        std::string scratch;
        const std::string &s = rep ? r->GetRepeatedStringReference(m, f, index, &scratch)
                                   : r->GetStringReference(m, f, &scratch);
        bool text = (orig != nullptr ? orig : f)->type() == gp::FieldDescriptor::TYPE_STRING;
        if (text) {
            json_string(out, s, &notes->invalid_utf8);
        } else {
            out += '"';
            out += to_hex(s);
            out += '"';
        }
        break;
    }
    case gp::FieldDescriptor::CPPTYPE_MESSAGE:
        message_json(out, rep ? r->GetRepeatedMessage(m, f, index) : r->GetMessage(m, f),
                     orig != nullptr ? orig->message_type() : nullptr, notes);
        break;
    }
}

} // namespace

void emit(const std::string &line)
{
    std::lock_guard<std::mutex> guard(s_output_lock);
    fwrite(line.data(), 1, line.size(), stdout);
    fputc('\n', stdout);
    fflush(stdout);
}

void json_string(std::string &out, std::string_view s, bool *invalid_utf8)
{
    static const char digits[] = "0123456789abcdef";
    out += '"';
    for (size_t i = 0; i < s.size();) {
        auto c = static_cast<unsigned char>(s[i]);
        if (c >= 0x80) {
            size_t n = utf8_sequence(s, i);
            if (n == 0) {
                out += "\\ufffd";
                if (invalid_utf8 != nullptr)
                    *invalid_utf8 = true;
                i++;
            } else {
                out.append(s.substr(i, n));
                i += n;
            }
            continue;
        }
        i++;
        switch (c) {
        case '"': out += "\\\""; break;
        case '\\': out += "\\\\"; break;
        default:
            if (c < 0x20 || c == 0x7f) {
                out += "\\u00";
                out += digits[c >> 4];
                out += digits[c & 15];
            } else {
                out += static_cast<char>(c);
            }
        }
    }
    out += '"';
}

void json_object::key(const char *k)
{
    if (text.size() > 1)
        text += ',';
    json_string(text, k);
    text += ':';
}

json_object &json_object::str(const char *k, std::string_view value)
{
    key(k);
    json_string(text, value);
    return *this;
}

json_object &json_object::num(const char *k, int64_t value)
{
    key(k);
    text += std::to_string(value);
    return *this;
}

json_object &json_object::unum(const char *k, uint64_t value)
{
    key(k);
    text += std::to_string(value);
    return *this;
}

json_object &json_object::boolean(const char *k, bool value)
{
    key(k);
    text += value ? "true" : "false";
    return *this;
}

json_object &json_object::raw(const char *k, std::string_view json)
{
    key(k);
    text += json;
    return *this;
}

void message_json(std::string &out, const gp::Message &m, const gp::Descriptor *orig, json_notes *notes,
                  const char *skip)
{
    const gp::Descriptor *d = m.GetDescriptor();
    const gp::Reflection *r = m.GetReflection();
    out += '{';
    bool first = true;
    for (int i = 0; i < d->field_count(); i++) {
        const gp::FieldDescriptor *f = d->field(i);
        if (skip != nullptr && f->name() == skip)
            continue;
        if (!f->is_repeated() && f->cpp_type() == gp::FieldDescriptor::CPPTYPE_MESSAGE && !r->HasField(m, f))
            continue;
        const gp::FieldDescriptor *orig_field = orig != nullptr ? orig->FindFieldByNumber(f->number()) : nullptr;
        if (!first)
            out += ',';
        first = false;
        json_string(out, f->name());
        out += ':';
        if (!f->is_repeated()) {
            value_json(out, m, f, orig_field, -1, notes);
            continue;
        }
        out += '[';
        for (int k = 0, n = r->FieldSize(m, f); k < n; k++) {
            if (k > 0)
                out += ',';
            value_json(out, m, f, orig_field, k, notes);
        }
        out += ']';
    }
    notes->unknown_fields += static_cast<size_t>(r->GetUnknownFields(m).field_count());
    out += '}';
}

std::unique_ptr<gp::Message> decode_lenient(const char *proto, std::string_view body)
{
    const gp::Descriptor *d = lenient().pool.FindMessageTypeByName(proto);
    if (d == nullptr || body.size() > static_cast<size_t>(INT32_MAX))
        return nullptr;
    std::unique_ptr<gp::Message> m(lenient().factory->GetPrototype(d)->New());
    if (!m->ParseFromArray(body.data(), static_cast<int>(body.size())))
        return nullptr;
    return m;
}

int body_json(uint16_t type, std::string_view body, std::string *out, json_notes *notes)
{
    const msg_info *info = find_msg_info(type);
    if (info == nullptr)
        return -2;
    if (info->proto == nullptr) {
        *out = "{}";
        return body.empty() ? 0 : -1;
    }
    std::unique_ptr<gp::Message> m = decode_lenient(info->proto, body);
    if (m == nullptr)
        return -1;
    const gp::Descriptor *orig = gp::DescriptorPool::generated_pool()->FindMessageTypeByName(info->proto);
    out->clear();
    if (type != 60004) {
        message_json(*out, *m, orig, notes);
        return 0;
    }
    // Chunk data is never printed, only its length.
    message_json(*out, *m, orig, notes, "chunk_data");
    std::string scratch;
    const gp::FieldDescriptor *data = m->GetDescriptor()->FindFieldByName("chunk_data");
    size_t length = m->GetReflection()->GetStringReference(*m, data, &scratch).size();
    out->insert(out->size() - 1, std::string(out->size() > 2 ? "," : "") + "\"chunk_data_len\":" +
                                     std::to_string(length));
    return 0;
}

} // namespace dg_sim
