// The standard stream interface and the binary file media taking turns on one C stream.
#include <string>
#include <vector>

#include "serial/file_stream.h"
#include "tests/serial/media_fixture.h"

using namespace QV::SERIAL;
using QV::STREAM::File_stream;

namespace {

TEST(FileStreamTest, TextAndBinaryTakeTurnsOnOneFile)
{
    qv_test_init();
    std::FILE* file = std::tmpfile();
    {
        File_stream stream(file);
        stream << "points " << 3 << '\n';
        stream.flush();
        File_serializer out(file);
        out.write(uint32_t(0xCAFEF00D));
        out.write("tail");
        stream << "after\n";
        stream.flush();
    }
    std::rewind(file);

    File_stream stream(file);
    std::string word;
    int count = 0;
    stream >> word >> count;
    EXPECT_EQ(word, "points");
    EXPECT_EQ(count, 3);
    EXPECT_EQ(stream.get(), '\n');
    // The stream read ahead; syncing gives those bytes back to the file for the binary reader.
    stream.sync();
    File_deserializer in(file);
    uint32_t value = 0;
    in.read(&value);
    EXPECT_EQ(value, 0xCAFEF00Du);
    in.read(&word);
    EXPECT_EQ(word, "tail");
    EXPECT_TRUE(in.is_valid());
    std::getline(stream, word);
    EXPECT_EQ(word, "after");
    std::fclose(file);
}

TEST(FileStreamTest, BlockReadsAndSeeksCrossTheReadBuffer)
{
    qv_test_init();
    std::FILE* file = std::tmpfile();
    std::vector<char> bytes(10000);
    for (size_t i = 0; i < bytes.size(); ++i)
        bytes[i] = static_cast<char>(i * 7);
    std::fwrite(bytes.data(), 1, bytes.size(), file);
    std::rewind(file);

    File_stream stream(file);
    std::vector<char> back(bytes.size());
    stream.read(back.data(), 10);
    stream.read(back.data() + 10, static_cast<std::streamsize>(back.size() - 10));
    EXPECT_EQ(back, bytes);

    stream.seekg(4095);
    EXPECT_EQ(stream.get(), static_cast<unsigned char>(bytes[4095]));
    stream.seekg(-2, std::ios_base::cur);
    EXPECT_EQ(stream.tellg(), 4094);
    EXPECT_EQ(stream.get(), static_cast<unsigned char>(bytes[4094]));

    // A write after a read lands where the reader stands, not where the read-ahead ended.
    stream.seekg(100);
    stream.get();
    stream.put('!');
    stream.flush();
    std::fseek(file, 101, SEEK_SET);
    EXPECT_EQ(std::fgetc(file), '!');
    std::fclose(file);
}

}  // namespace
