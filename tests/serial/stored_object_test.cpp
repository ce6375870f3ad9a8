// Stored objects: the framing, the manager that turns ids into objects, and what happens when
// the stream lies (unknown ids, truncation, damaged counts).
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "database/element.h"
#include "runtime/msg.h"
#include "tests/serial/media_fixture.h"

using namespace QV::SERIAL;
using namespace serial_test;
using QV::DB::Element;

namespace {

class Probe : public Element<Probe, qv_class_id("=PRB")> {
public:
    int32_t value = 0;
    std::string label;

    const void* serialize(Serializer* out) const override
    {
        out->write(value);
        out->write(label);
        return this + 1;
    }
    void* deserialize(Deserializer* in) override
    {
        in->read(&value);
        in->read(&label);
        return this + 1;
    }
};

Serializable* make_probe() { return new Probe(); }
class StoredObjectTest : public testing::TestWithParam<Media> {
protected:
    void SetUp() override
    {
        qv_test_init();
        manager_.register_class(Probe::CLASS_ID, make_probe);
        messages_.emplace();
    }
    void TearDown() override { messages_.reset(); }

    std::vector<uint8_t> stored_probe()
    {
        Probe probe;
        probe.value = -17;
        probe.label = "point cloud";
        probe.references = {0x400, 0x40000000};
        Writer out(GetParam());
        out->serialize(&probe);
        return out.bytes();
    }

    Deserialization_manager_impl manager_;
    std::optional<Msg_collect> messages_;
};

TEST_P(StoredObjectTest, FramingIsIdThenReferencesThenPayload)
{
    std::vector<uint8_t> bytes = stored_probe();
    EXPECT_EQ(bytes, concat({le32(0x3D505242), le32(2), le32(0x400), le32(0x40000000),
                             le32(uint32_t(-17)), le32(12), text_bytes("point cloud")}));

    Reader in(GetParam(), bytes, &manager_);
    std::unique_ptr<Serializable> object(in->deserialize());
    auto* probe = dynamic_cast<Probe*>(object.get());
    ASSERT_NE(probe, nullptr);
    EXPECT_EQ(probe->value, -17);
    EXPECT_EQ(probe->label, "point cloud");
    EXPECT_EQ(probe->references, (std::vector<Db_tag>{0x400, 0x40000000}));
    EXPECT_TRUE(in->is_valid());
    EXPECT_TRUE(Msg_collect::lines().empty());

    // An id the manager does not know is an error and no object.
    manager_.unregister(Probe::CLASS_ID);
    Reader unknown(GetParam(), bytes, &manager_);
    EXPECT_EQ(unknown->deserialize(), nullptr);
    EXPECT_EQ(Msg_collect::texts(MSG_ERROR), std::vector<std::string>{"cannot construct serializable class id 0x3d505242"});
}

TEST_P(StoredObjectTest, EveryTruncationIsReportedAndNeverCrashes)
{
    std::vector<uint8_t> bytes = stored_probe();
    for (size_t keep = 0; keep < bytes.size(); ++keep) {
        SCOPED_TRACE(keep);
        Reader in(GetParam(), std::vector<uint8_t>(bytes.begin(), bytes.begin() + keep), &manager_);
        std::unique_ptr<Serializable> object(in->deserialize());
        EXPECT_FALSE(in->is_valid());
        // Cut inside the class id: nothing to build. Later: the object exists, half filled.
        EXPECT_EQ(object == nullptr, keep < 4);
        if (auto* probe = dynamic_cast<Probe*>(object.get())) {
            EXPECT_LE(probe->label.size(), 11u);
        }
    }
}

TEST_P(StoredObjectTest, DamagedCountsEndWithTheStreamNotWithAHugeAllocation)
{
    const std::vector<uint8_t> tail = text_bytes("xyz");
    const std::vector<uint8_t> huge_text = concat({le32(0xFFFFFFFFu), tail});
    // Reads one value from `bytes`; the stream must end up invalid.
    auto read_damaged = [&](const std::vector<uint8_t>& bytes, auto* value) {
        Reader in(GetParam(), bytes, &manager_);
        in->read(value);
        EXPECT_FALSE(in->is_valid());
    };
    char* c_text = reinterpret_cast<char*>(1);
    read_damaged(huge_text, &c_text);
    EXPECT_EQ(c_text, nullptr);
    std::string text = "old";
    read_damaged(huge_text, &text);
    EXPECT_LE(text.size(), 4096u);
    EXPECT_EQ(text.substr(0, 3), "xyz");
    String_map map;
    read_damaged(concat({le64(uint64_t(1) << 62), le32(2), tail}), &map);
    EXPECT_TRUE(map.empty());
    Byte_block block;
    read_damaged(concat({le64(uint64_t(1) << 60), le64(uint64_t(1) << 60), tail}), &block);
    EXPECT_LE(block.capacity(), 4096u);

    // An element whose reference count is damaged.
    Reader in(GetParam(), concat({le32(Probe::CLASS_ID), le32(0xFFFFFFF0u), le32(7)}), &manager_);
    std::unique_ptr<Serializable> object(in->deserialize());
    ASSERT_NE(object, nullptr);
    EXPECT_TRUE(static_cast<Probe*>(object.get())->references.empty());
    EXPECT_FALSE(in->is_valid());
}

INSTANTIATE_TEST_SUITE_P(Media, StoredObjectTest, testing::Values(Media::file, Media::queue),
                         media_name);

}  // namespace
