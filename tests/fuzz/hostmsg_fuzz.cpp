// libFuzzer target: the first input byte picks the reader. 0 hands the rest to the welcome-message
// reader; any other value hands it to the database's message handler as a run of messages, each
// behind a 2-byte length, with bit 0 of the first byte as the byte-order flag. The handler runs
// as a master without connections, so its replies go nowhere. Whatever the bytes, nothing may
// crash or read outside its buffers, allocations stay in proportion to the bytes received, and
// a message that is short, has a bad opcode or a payload length that does not match is reported.
// Built and run by scripts/fuzz_hostmsg.sh, not by the test build.
#include <algorithm>

#include "database/db.h"
#include "database/element.h"
#include "database/host_db_protocol.h"
#include "database/host_messaging.h"
#include "tests/fuzz/fuzz_support.h"

namespace {

int g_errors;

void count_errors(uint32_t level, const char*, const char*, int32_t)
{
    if (level == MSG_ERROR || level == MSG_FATAL)
        ++g_errors;
}

void start()
{
    fuzz_start(MSG_FATAL | MSG_ERROR, count_errors);
    qv_db_init();
    QV::DB::element_install_db_handler();
}

// True for a message the handler must report before it acts.
bool malformed(const uint8_t* bytes, size_t length, bool swap)
{
    if (length < DB_NET_HEADER_BYTES)
        return true;
    Db_net_header header;
    std::memcpy(&header, bytes, sizeof header);
    if (swap) {
        header.opcode = int32_t(__builtin_bswap32(uint32_t(header.opcode)));
        header.length = __builtin_bswap32(header.length);
    }
    return header.opcode < 0 || header.opcode >= DB_NET_OPCODES || header.length != length - DB_NET_HEADER_BYTES ||
           header.length > DB_NET_PIECE_BYTES || header.type >= DB_TYPES;
}

// Seeds: a welcome message, and runs of well-formed messages that reach every opcode.
void write_seeds(const char* directory)
{
    auto save = [directory](const char* name, const std::vector<uint8_t>& bytes) {
        fuzz_put_file(std::string(directory) + "/" + name, bytes.data(), bytes.size());
    };
    std::vector<uint8_t> welcome(1 + QV_MSG_WELCOME_BYTES, 0);
    msg_welcome_make(welcome.data() + 1, 0, 3);
    save("welcome", welcome);

    auto message = [](std::vector<uint8_t>& run, Db_net_header header, size_t payload, uint8_t fill) {
        header.length = uint32_t(payload);
        uint16_t length = uint16_t(sizeof header + payload);
        run.insert(run.end(), reinterpret_cast<uint8_t*>(&length), reinterpret_cast<uint8_t*>(&length) + 2);
        run.insert(run.end(), reinterpret_cast<uint8_t*>(&header), reinterpret_cast<uint8_t*>(&header) + sizeof header);
        run.insert(run.end(), payload, fill);
    };
    std::vector<uint8_t> pieces = {2};
    for (uint32_t piece = 0; piece < 3; ++piece) {
        Db_net_header header{};
        header.opcode = DB_NET_DATA_PIECE;
        header.tag = 0x80010400u;
        header.total = 3000;
        header.piece = piece;
        header.host = 1;
        header.last = piece == 2;
        message(pieces, header, piece == 2 ? 3000 - 2 * 1364 : 1364, uint8_t(piece));
    }
    save("pieces", pieces);

    std::vector<uint8_t> all = {4};
    for (int32_t opcode = 0; opcode < DB_NET_OPCODES; ++opcode) {
        Db_net_header header{};
        header.opcode = opcode;
        header.tag = 0x80010401u;
        header.count = 8;
        header.host = 1;
        header.flags = 1;
        message(all, header, opcode == DB_NET_FLUSH ? 4 : 0, 0);
    }
    save("opcodes", all);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool started = (start(), true);
    (void)started;
    if (const char* seeds = std::getenv("QV_HOSTMSG_FUZZ_SEEDS")) {
        write_seeds(seeds);
        std::exit(0);
    }
    if (size == 0)
        return 0;
    if (data[0] == 0) {
        Msg_welcome_info info{};
        g_errors = 0;
        Msg_welcome_status status = msg_welcome_read(data + 1, size - 1, 3, &info);
        if (status == WELCOME_BAD && g_errors == 0)
            std::abort();
        if (status == WELCOME_OK && (info.sender >= QV_MSG_MAX_HOSTS || info.assigned >= QV_MSG_MAX_HOSTS))
            std::abort();
        return 0;
    }
    const bool swap = data[0] & 1;
    std::vector<uint64_t> buffer(DB_NET_MESSAGE_BYTES / 8 + 64);
    size_t at = 1;
    while (at + 2 <= size) {
        uint16_t length;
        std::memcpy(&length, data + at, 2);
        at += 2;
        length = uint16_t(std::min<size_t>({length, size - at, buffer.size() * 8}));
        std::memcpy(buffer.data(), data + at, length);
        at += length;
        const bool bad = malformed(reinterpret_cast<uint8_t*>(buffer.data()), length, swap);
        g_errors = 0;
        qv_db_net::handle(thread_context(), buffer.data(), length, swap);
        if (bad && g_errors == 0)
            std::abort();
    }
    return 0;
}
