// Module SCENE (id 7): what the database's type numbers mean.
//
// One table, indexed by type number 0..127, holds five handlers per type: constructor, resize,
// validator, byte-order swap and unlink. Built-in types (1 to 57) are filled statically; type 39
// and types 64 to 127 are for other modules, which fill them at their own init with
// qv_scene_register_type. Readers of the table take no lock: registration happens during start-up
// only.
//
// Records created here are plain bytes under a tag. Scene records hold tags of sub-records and
// nothing releases those automatically: qv_scene_delete is the owner-aware delete.
#pragma once

#include <cstdint>

#include "database/db.h"
#include "database/scene_records.h"
#include "database/scene_swap.h"

// Up to eight further values of qv_scene_create and qv_scene_resize, in call order.
struct Scene_args {
    int64_t value[8];
};

// Makes the record under a new tag; returns its data (null on failure).
using Scene_constructor = void* (*)(Db_tag* tag, const Scene_args& args);
// Gives an existing record the size its new counts ask for; returns the (edited) data.
using Scene_resize_fn = void* (*)(Db_tag tag, const Scene_args& args);
// Checks a record field by field and reports every fault at error level; 1 if good, else 0.
// `reserved` is always 0.
using Scene_validate_fn = int (*)(Db_tag tag, uint32_t size, const void* data, int reserved);
// Removes `child` from the sub-tags of `parent`; 1 if it was held there, 0 if not.
using Scene_unlink_fn = int (*)(Db_tag parent, Db_tag child);

struct Scene_type_handlers {
    Scene_constructor constructor;
    Scene_resize_fn resize;
    Scene_validate_fn validator;
    Scene_swap_fn swap;
    Scene_unlink_fn unlink;
};

// Start of module SCENE; after qv_db_init. Creates the module lock, registers the per-thread
// area, builds the Options instance and registers "opts" with the deserialization manager, and
// connects the type table to the database's per-type hooks. A second call does nothing.
void qv_scene_init();
bool qv_scene_started();

// Name of a type number; "invalid" for unnamed numbers and for numbers above 127.
const char* qv_scene_type_name(int type);

// Type 39 or 64..127; otherwise error 4 and the table stays as it was. Returns 1 when stored.
int qv_scene_register_type(int type, Scene_constructor constructor, Scene_resize_fn resize,
                           Scene_validate_fn validator, Scene_swap_fn swap, Scene_unlink_fn unlink);
// The table row of `type` (all null for numbers outside 0..127).
const Scene_type_handlers& qv_scene_handlers(int type);

// Creates a record of `type`. Array types take their element count as the first value;
// funcdecl takes result size and subtag count; face, surface, curve, spacecurve and approxlist
// an item count; box its item count; group its member count; userdata its payload bytes; basis
// list its basis count. Afterwards `module` is the caller's module, `refs` 0, `flags` 7 and
// `priv` 0. A tracked type stays pinned by the creator, as qv_db_create leaves it.
void* qv_scene_create(Db_tag* tag, int type, const Scene_args& args);
void* qv_scene_create(Db_tag* tag, int type, int64_t first = 0, int64_t second = 0);

// Accesses the record for change and marks it (`flags` |= 7). The caller unpins.
Db_record* qv_scene_edit(Db_tag tag);
// Hooks of the edit's special steps; null hooks do nothing.
struct Scene_edit_hooks {
    void (*func_forget)(Db_tag tag, void* data);  // a function drops its cached state
    void (*object_changes)(Db_tag tag);           // the scene cache hears that an object changes
};
void qv_scene_set_edit_hooks(const Scene_edit_hooks& hooks);

// 1 if the record is good (or its type has no validator), else 0.
int qv_scene_validate(Db_tag tag);
// Fixed-size types log "can't grow a %s" (debug) and return the edited data unchanged.
void* qv_scene_resize(Db_tag tag, const Scene_args& args);
void* qv_scene_resize(Db_tag tag, int64_t first, int64_t second = 0);

// Copy of a record under a new tag. Camera, instance and options are deep: the sub-tags they own
// are duplicated, and the Options element is stored anew. Other types are byte copies.
Db_tag qv_scene_copy(Db_tag tag);
// Deletes the sub-tags the record owns, then the tag itself.
void qv_scene_delete(Db_tag tag);
// Removes `child` from `parent`'s sub-tags (tag lists and registered unlink handlers). 1 on
// success; 0 with an error when `parent` does not hold it or its type cannot hold tags.
int qv_scene_unlink(Db_tag parent, Db_tag child);

// Message numbers of module SCENE (error level).
constexpr int32_t SCENE_ERROR_REGISTER_RANGE = 4;
