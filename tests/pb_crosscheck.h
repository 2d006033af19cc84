// Shared by the codec tests: the agent's three operations of a message, an aligned
// workspace, and the cross-check of a message against Google's protobuf library (the
// reference schema dg_protocol.proto) in both directions.
#pragma once

#include <gtest/gtest.h>
#include <google/protobuf/io/coded_stream.h>
#include <google/protobuf/io/zero_copy_stream_impl_lite.h>
#include <google/protobuf/map.h>
#include <google/protobuf/text_format.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "pbtools.h"

using bytes_t = std::vector<uint8_t>;

// The three operations of one agent message.
template <typename T> struct agent_codec {
    T *(*new_fn)(void *, size_t);
    int (*encode_fn)(const T *, uint8_t *, size_t);
    int (*decode_fn)(T *, const uint8_t *, size_t);
};
#define AGENT_CODEC(name) (agent_codec<name##_t>{name##_new, name##_encode, name##_decode})

// An 8-byte aligned workspace of the given size.
struct workspace {
    explicit workspace(size_t size = 65536) : words((size + 7) / 8), size(size) {}
    void *data() { return words.data(); }
    // A fresh record of this workspace (null only if the workspace cannot hold it).
    template <typename T> T *fresh(const agent_codec<T> &codec) { return codec.new_fn(data(), size); }
    std::vector<uint64_t> words;
    size_t size;
};

// Decodes into a fresh record of ws; the result code goes to *result_p.
template <typename T>
T *agent_decode(const agent_codec<T> &codec, workspace &ws, const bytes_t &data, int *result_p)
{
    T *record_p = ws.fresh(codec);
    *result_p =
        record_p == nullptr ? -PBTOOLS_OUT_OF_MEMORY : codec.decode_fn(record_p, data.data(), data.size());
    return record_p;
}

// libprotobuf's deterministic output: fields in number order, map entries sorted by key.
inline bytes_t ref_encode(const google::protobuf::MessageLite &message)
{
    std::string out;
    {
        google::protobuf::io::StringOutputStream stream(&out);
        google::protobuf::io::CodedOutputStream coded(&stream);
        coded.SetSerializationDeterministic(true);
        EXPECT_TRUE(message.SerializeToCodedStream(&coded));
    }
    return bytes_t(out.begin(), out.end());
}

// One field of an agent record against libprotobuf's value: numbers as they are, texts and
// bytes as strings, maps as sets (libprotobuf keeps no entry order).
template <typename A, typename B> void expect_same(const A &ours, const B &theirs, const char *name)
{
    EXPECT_EQ(ours, theirs) << name;
}
inline void expect_same(const char *ours, const std::string &theirs, const char *name)
{
    EXPECT_STREQ(ours, theirs.c_str()) << name;
}
inline void expect_same(const pbtools_bytes_t &ours, const std::string &theirs, const char *name)
{
    EXPECT_EQ(std::string(reinterpret_cast<const char *>(ours.buf_p), ours.size), theirs) << name;
}
inline void expect_same(const pbtools_repeated<pbtools_map_entry_t> &ours,
                        const google::protobuf::Map<std::string, std::string> &theirs, const char *name)
{
    std::map<std::string, std::string> ours_set;
    for (int32_t i = 0; i < ours.length; i++)
        ours_set[ours.items_p[i].key] = ours.items_p[i].value;
    EXPECT_EQ(ours_set, (std::map<std::string, std::string>(theirs.begin(), theirs.end()))) << name;
}
// Used inside a `same(record_p, ref)` comparison: SAME(a), SAME(b), ... lists the fields.
#define SAME(field) expect_same(record_p->field, ref.field(), #field)

// Repeated sub-messages item by item, with the message's own comparison.
template <typename T, typename Items, typename Same>
void same_items(const pbtools_repeated<T> &ours, const Items &theirs, Same same)
{
    ASSERT_EQ(ours.length, theirs.size());
    for (int i = 0; i < theirs.size(); i++)
        same(&ours.items_p[i], theirs.Get(i));
}

// Each text (libprotobuf's text format; the empty text, all defaults, is always tried first)
// is encoded by libprotobuf, decoded by the agent and compared field by field, then encoded
// again by the agent: libprotobuf must read that back as the same message and, when
// `canonical`, the bytes must be identical.
template <typename Ref, typename T, typename Same>
void cross_check(const agent_codec<T> &codec, Same same, std::vector<std::string> texts, bool canonical = true)
{
    texts.insert(texts.begin(), "");
    for (const std::string &text : texts) {
        SCOPED_TRACE(Ref().GetTypeName() + " { " + text.substr(0, 200) + " }");
        Ref ref;
        ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &ref));
        const bytes_t theirs = ref_encode(ref);
        workspace ws(theirs.size() * 2 + 65536);
        int result;
        T *record_p = agent_decode(codec, ws, theirs, &result);
        ASSERT_EQ(result, static_cast<int>(theirs.size())) << pbtools_error_code_to_string(result);
        same(record_p, ref);
        bytes_t ours(theirs.size() + 1024);
        int size = codec.encode_fn(record_p, ours.data(), ours.size());
        ASSERT_GE(size, 0) << pbtools_error_code_to_string(size);
        ours.resize(static_cast<size_t>(size));
        Ref back;
        ASSERT_TRUE(back.ParseFromArray(ours.data(), size));
        EXPECT_EQ(ref_encode(back), theirs);
        EXPECT_TRUE(!(canonical || text.empty()) || ours == theirs) << "not libprotobuf's bytes";
    }
}
