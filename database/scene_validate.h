// Validators of the built-in scene records.
//
// A validator checks an imported record field by field. It reports every fault it finds at error
// level, each line led by the record's prefix ("decl 0x400: ..."), and does not stop at the
// first: the size is compared with what the record's own counters ask for, then the remaining
// fields are checked all the same, as far as the record's bytes reach.
#pragma once

#include <cstdint>

#include "database/db.h"
#include "database/scene_types.h"

// The validator of a built-in type, or null when the type has none.
Scene_validate_fn qv_scene_builtin_validator(int type);

// Flags of qv_scene_check_tag.
constexpr int SCENE_TAG_NULL_OK = 1;
constexpr int SCENE_TAG_ANY_TYPE = -1;

// Checks a reference held by a record. `owner` is the holder as the reports name it ("decl
// 0x400"), `word` what the reference is for ("root shader"). A null tag is good only with
// SCENE_TAG_NULL_OK; otherwise "%s: null %s tag". A tag that is not alive here or has another
// type than `wanted_type` (SCENE_TAG_ANY_TYPE accepts all) gives "cannot put reference to ...".
// Returns 1 if good.
int qv_scene_check_tag(Db_tag tag, int wanted_type, int flags, const char* word, const char* owner);
