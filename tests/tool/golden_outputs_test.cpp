// The tool's output files, byte for byte: every case below runs the built fg_splice on room maps
// made by fg_make_room and compares the SHA-256 of each output with the value recorded from an
// earlier build. Any change to the stages (the BVH build, intake, the kd-tree, merge, box) that
// moves a single output byte shows up here.
//
// To record the values again after a deliberate change of output (which needs its reason written
// in docs/), run with QV_GOLDEN_PRINT=1: the test prints each case's digest per room.
#include <gtest/gtest.h>

#include <array>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "tests/tool/run_tool.h"

namespace {

// ---- SHA-256 (FIPS 180-4), enough to fingerprint files of a few megabytes ----

constexpr std::array<uint32_t, 64> SHA_K = {
    0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4, 0xab1c5ed5,
    0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe, 0x9bdc06a7, 0xc19bf174,
    0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f, 0x4a7484aa, 0x5cb0a9dc, 0x76f988da,
    0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7, 0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967,
    0x27b70a85, 0x2e1b2138, 0x4d2c6dfc, 0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85,
    0xa2bfe8a1, 0xa81a664b, 0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070,
    0x19a4c116, 0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
    0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7, 0xc67178f2};

uint32_t rotr(uint32_t x, int n) { return (x >> n) | (x << (32 - n)); }

std::string sha256_hex(const std::string& data)
{
    uint32_t h[8] = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                     0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
    std::string msg = data;
    const uint64_t bits = uint64_t(data.size()) * 8;
    msg.push_back(char(0x80));
    while (msg.size() % 64 != 56)
        msg.push_back('\0');
    for (int i = 7; i >= 0; --i)
        msg.push_back(char((bits >> (8 * i)) & 0xff));

    for (size_t off = 0; off < msg.size(); off += 64) {
        uint32_t w[64];
        for (int i = 0; i < 16; ++i) {
            const auto* p = reinterpret_cast<const unsigned char*>(&msg[off + 4 * size_t(i)]);
            w[i] = uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
        }
        for (int i = 16; i < 64; ++i) {
            uint32_t s0 = rotr(w[i - 15], 7) ^ rotr(w[i - 15], 18) ^ (w[i - 15] >> 3);
            uint32_t s1 = rotr(w[i - 2], 17) ^ rotr(w[i - 2], 19) ^ (w[i - 2] >> 10);
            w[i] = w[i - 16] + s0 + w[i - 7] + s1;
        }
        uint32_t a = h[0], b = h[1], c = h[2], d = h[3], e = h[4], f = h[5], g = h[6], k = h[7];
        for (int i = 0; i < 64; ++i) {
            uint32_t t1 = k + (rotr(e, 6) ^ rotr(e, 11) ^ rotr(e, 25)) + ((e & f) ^ (~e & g)) + SHA_K[i] + w[i];
            uint32_t t2 = (rotr(a, 2) ^ rotr(a, 13) ^ rotr(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
            k = g;
            g = f;
            f = e;
            e = d + t1;
            d = c;
            c = b;
            b = a;
            a = t1 + t2;
        }
        h[0] += a, h[1] += b, h[2] += c, h[3] += d, h[4] += e, h[5] += f, h[6] += g, h[7] += k;
    }
    char hex[65];
    for (int i = 0; i < 8; ++i)
        std::snprintf(hex + 8 * i, 9, "%08x", h[i]);
    return std::string(hex, 64);
}

TEST(GoldenSha256, KnownDigests)
{
    EXPECT_EQ(sha256_hex(""), "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855");
    EXPECT_EQ(sha256_hex("abc"), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    // Two blocks of padding.
    EXPECT_EQ(sha256_hex("abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq"),
              "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1");
}

// ---- the cases ----

struct Room {
    int points;
    int seed;
    const char* merge_distance;  // about five neighbours per point at this density
};

// Sizes from under two pages to about a hundred, so that the page trees, the scatter over many
// staged pages and the kd-tree's deeper levels are all reached.
constexpr Room ROOMS[] = {{500, 1, "0.99700"}, {4000, 2, "0.35200"}, {30000, 3, "0.12870"}};

// Each case in the order run (the first makes "current"): the words, with file roles and "D"
// (the room's merge distance) filled in per room, the output read, and the SHA-256 recorded for
// each room of ROOMS.
struct Case {
    const char* name;
    std::vector<std::string> words;
    const char* output;
    std::array<const char*, 3> recorded;
};

const Case CASES[] = {
    {"copy classic->current", {"classic", "current"}, "current",
     {"ef3b5f03cb15e205c048fb002b17ab3e5874120612748b1d2a4ff14ab17a1ae4", "e316dc0e1cd69db55a8c10f3ec095a1ff611e0f5140daf08efce090bebb3f270", "76be25269357e104bfc1a99722b67cb8673b2bb42229c3e2e378ec70bd7c0fb8"}},
    {"copy current->current", {"current", "out"}, "out",
     {"ef3b5f03cb15e205c048fb002b17ab3e5874120612748b1d2a4ff14ab17a1ae4", "e316dc0e1cd69db55a8c10f3ec095a1ff611e0f5140daf08efce090bebb3f270", "4ff4ac64535d78e068bcc81f9d421eef5d76752ee4be8cd4c414a692c3f7f5e1"}},
    {"copy foreign->current", {"foreign", "out"}, "out",
     {"ef3b5f03cb15e205c048fb002b17ab3e5874120612748b1d2a4ff14ab17a1ae4", "e316dc0e1cd69db55a8c10f3ec095a1ff611e0f5140daf08efce090bebb3f270", "76be25269357e104bfc1a99722b67cb8673b2bb42229c3e2e378ec70bd7c0fb8"}},
    {"copy version0->current", {"version0", "out"}, "out",
     {"ceee0c76cce4fd791544cf2e930ec860f1248dd0d0f6c280680fa121758bc64c", "76c190e92d9843b990d6eac552829769b6c5903d3c408a8d70293eeb6529b0b1", "7e02e4541815a6881b803d4a75869918c5626cb15ebdd3d12ad8491941273214"}},
    {"two classic inputs->current", {"classic", "other", "out"}, "out",
     {"2cf9658074c9bd7a0729acac49c00f0f08ba4785cf0b430032f3d4542547d505", "a58f95fe598befa8ad4ca03bb03489e93ba84352a3fd3e8e7888931467985251", "4c78ddd0cd25a4fc6c3b8075a5394287aa572dc5464b39d39de7c5486acdd0f9"}},
    {"classic and current inputs->current", {"other", "current", "out"}, "out",
     {"2cf9658074c9bd7a0729acac49c00f0f08ba4785cf0b430032f3d4542547d505", "63b2d5885698c399fa775bb5139187f70c4baf00902e5b434291faae7a9f3f19", "64bd378fb075100a20dbf5a6249422a52caae9a3fb5635064c8e3175faf1e9ee"}},
    {"classic out of classic", {"-l", "on", "classic", "out_classic"}, "out_classic",
     {"5a011861e3dcebabe3cc0dceb392d1ef0b59072ab96df9523f0d350f9675de55", "4d5169fe87b6883cc865038698053c0c09d54afdfd1581cad377f25309584197", "ac1361fdac665e89f60cd5252d0e50d86136c86107174e1a6ebb4da0c8cb7af6"}},
    {"classic out of current", {"-l", "on", "current", "out_classic"}, "out_classic",
     {"bcae731034df828bd72a6c6cb8da25ddcd48eb7eee05933c476efe490956a5b7", "62dfdb09aac5cd784e48aa7c5a99532dc4b8e43c1aa6dce3dafe86d2dad1e277", "a76f8093620ed766e21ff705ee61d7f4aef54863fe19c52cbb5a976d83be52cf"}},
    {"box inside current", {"-b", "0", "0", "0", "5", "4", "8", "current", "out"}, "out",
     {"b0e8805c473c5f9ce43366ebecd5cc6f2e6c198e506ae75fc72e3bc3e87e4d57", "1b9cdddc4925b36980d5fff1f8a4d1d76e85c40f8c11f187811564418a3a9207", "0fafe4b1aafa5335731a64631afaed9fd8849ca8689523200269f22700b9f956"}},
    {"box outside classic", {"-B", "3", "-1", "2", "7", "2", "6", "classic", "out"}, "out",
     {"ca4607ca80c152a3158fdf13860c2661841b1fd7b4f869e54943e4ec51890635", "ce8c36d9454951af6793fc68bfc9c035b7f53cab2287dfa820fe6fcef09dff7d", "5fa9db274eface745b5ede240cff10b65d61bff9b6b6131aa14708cc1984f9e8"}},
    {"box inside, classic out", {"-l", "on", "-b", "1", "0", "1", "9", "3", "7", "classic", "out_classic"}, "out_classic",
     {"d31f7b6bc57ddc81bc9c28c8bbd8349db2da5b09aad590e43adc83f803e1ab1d", "8d00e67630a623535b84d713a48b4c3f88864926b81090d0ac85c05b54db269b", "075a980dcaf5889d72206e89df1a751477751a99f824834231be41c4a5a62ff7"}},
    {"merge current", {"-f", "D", "current", "out"}, "out",
     {"6e1ce80347877c707a44069fb5b90a04effc8dfa80336cf5c1ddc02e6b1e5800", "4f8fc82f8d36def03ce7b475da6f2be2f447203e1b30d9df38190ccec313a476", "1a8aec46902f5bd77f3563c4fe2feda9adb7c789da7b6800e5324a53cbf6f93a"}},
    {"merge classic, classic out", {"-l", "on", "-f", "D", "classic", "out_classic"}, "out_classic",
     {"fbe7c273ff1970954ae26a1eeef1ff4d6c0dd5efd3d3241ba9e2ef8389a2c6c6", "2ddca76cca7dc28535ae49061a6b64a35977708a8853e4fd304e2c8cc1636289", "e084bc66f16ae78f95105267bb60b9e862dec8ffe5bfd25f80889460d6f13b2f"}},
    {"box and merge of two inputs", {"-b", "0", "0", "0", "10", "2", "8", "-f", "D", "classic", "other", "out"}, "out",
     {"9298439000345d913405bc606282bfe19e57840c5d64ba0c7396d0b788bc8d8a", "8e2b34673081d8d9e99445fc5595720d03d21fecf6ec37131a226ec631af6822", "7a91c8e44edb6df449e9155c2a2dadeb3f8ac48b76f4dd1ceff35d41fc708893"}},
};

TEST(GoldenOutputs, EveryCaseMatchesTheRecordedDigest)
{
    Temp_dir dir;
    const bool print = std::getenv("QV_GOLDEN_PRINT") != nullptr;
    for (size_t r = 0; r < std::size(ROOMS); ++r) {
        const Room& room = ROOMS[r];
        const std::string n = std::to_string(room.points), seed = std::to_string(room.seed);
        const std::string room_name = "n" + n + "s" + seed;
        const std::string other_n = std::to_string(room.points / 3), other_seed = std::to_string(room.seed + 100);
        // The classic inputs: native, a third as large from another seed, big-endian, version 0.
        const std::vector<std::vector<std::string>> makes = {{"-n", n, "-s", seed, dir.file("classic")},
                                                             {"-n", other_n, "-s", other_seed, dir.file("other")},
                                                             {"-n", n, "-s", seed, "-e", dir.file("foreign")},
                                                             {"-n", n, "-s", seed, "-0", dir.file("version0")}};
        for (const auto& args : makes)
            ASSERT_EQ(run_binary(QV_TEST_MAKE_ROOM_PATH, args).exit_code, 0) << args.back();
        for (const Case& c : CASES) {
            std::vector<std::string> args;
            for (const std::string& word : c.words) {
                const bool file = std::isalpha(static_cast<unsigned char>(word[0])) && word != "on";
                args.push_back(word == "D" ? room.merge_distance : file ? dir.file(word) : word);
            }
            const Tool_result result = run_tool(args);
            ASSERT_EQ(result.exit_code, 0) << room_name << "/" << c.name << ": " << result.err;
            ASSERT_TRUE(file_exists(dir.file(c.output))) << c.name;
            const std::string digest = sha256_hex(read_file(dir.file(c.output)));
            if (print)
                std::printf("%s/%s %s\n", room_name.c_str(), c.name, digest.c_str());
            EXPECT_EQ(digest, c.recorded[r]) << room_name << "/" << c.name;
        }
    }
}

}  // namespace
