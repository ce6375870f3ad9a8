// Moving a type-63 element between hosts: its stored-object form is cut into pieces on the
// sending side and rebuilt from the pieces on the receiving side. The host messaging layer
// drives both; the per-tag serializer cache belongs to the network thread.
#pragma once

#include <cstddef>

#include "database/db.h"

namespace QV::DB {

// Copies up to `count` bytes of the element's serialized form from `offset` into `buffer` and
// returns how many. Offset 0 starts (or joins) a send of the tag: the element is serialized
// once and cached with a use count. `*last` is set when this piece reaches the end; that drops
// one use, and the last use frees the serializer and unpins the tag. A piece of a tag that no
// send has started gives 0 with `*last` set.
size_t serial_send_piece(Db_tag tag, void* buffer, size_t offset, size_t count, bool* last);

// Number of tags with a send in progress.
size_t serial_sends_in_progress();

// Appends an arriving piece to the byte queue hung on `record->data` (offset 0 first discards
// any old queue). After the last piece the object is read with the process manager and becomes
// the record's data (null if it could not be read). REQUIRES: the record is in the arriving
// state, so that nothing else reads `data` meanwhile.
void serial_receive_piece(Db_record* record, const void* bytes, size_t offset, size_t count, bool last);

}  // namespace QV::DB
