// The process-wide registry of tag names behind Transaction's naming rows: two ordered maps,
// tag to name and name to tag, made at first use.
//
// Renaming leaves the older name-to-tag entry in place on purpose: a renamed tag stays findable
// under every name it ever had, until that name is given to another tag. No lock: the registry
// belongs to the main line and to serial set-up code.
#pragma once

#include "database/db.h"

namespace QV::DB {

// Tag 0, a null or an empty name: nothing. Otherwise name -> tag is (over)written and
// tag -> name becomes `name`. Always true when something was written.
bool tag_names_register(Db_tag tag, const char* name);
// Erases the tag's current name in both maps; older names of the tag stay.
void tag_names_drop(Db_tag tag);
// The name in one shared string that the next call overwrites; null when the tag has none.
const char* tag_names_tag_to_name(Db_tag tag);
// 0 for a null, empty or unknown name.
Db_tag tag_names_name_to_tag(const char* name);
// For the database dump: the stored name itself (valid until the tag is renamed or dropped),
// or null.
const char* tag_names_lookup(Db_tag tag);

}  // namespace QV::DB
