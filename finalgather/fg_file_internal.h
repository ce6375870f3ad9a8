// Pieces shared by the readers and the writers of the final-gather files.
#pragma once

#include <cstdint>
#include <cstdio>

#include "finalgather/fg_file.h"

namespace fg_file_detail {

// Message texts of module RCFG that more than one file uses.
inline constexpr const char TEXT_SEEK_HEADER[] = "cannot seek to finalgather map file header";      // 2
inline constexpr const char TEXT_READ_HEADER[] = "cannot read finalgather map file header";        // 3
inline constexpr const char TEXT_CLOSING[] = "failed closing file";                                // 5, 9
inline constexpr const char TEXT_NOT_VALID[] = "'%' is not a valid finalgather map file";          // 20

enum File_kind {
    FILE_KIND_FAILED,   // the 32 bytes could not be had; reported under codes 2 or 3
    FILE_KIND_CLASSIC,  // begins with "qvFG"
    FILE_KIND_CURRENT,  // anything else: the map reader decides
};

// Seeks to 0 and reads the 32-byte file header.
File_kind file_kind(FILE* file, const char* path);

struct Classic_header {
    uint32_t count;    // points the header announces; 0 also for every failure
    uint32_t version;  // 0 or 1 when count is not 0
    bool swap;         // the file is in the foreign byte order
};

// Reads the options header and the size block with the stream standing at offset 32, reporting
// each failure; leaves the stream at offset 120.
Classic_header read_classic_headers(FILE* file, const char* path);

// Puts a world-space gradient record of version 0 into the tangent frame of its normal.
// `record` holds the file's 26 words.
void convert_version0(Fg_point* record);

}  // namespace fg_file_detail
