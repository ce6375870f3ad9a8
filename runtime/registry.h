// Registry: expansion of {name} references in a string.
#pragma once

// Returns a new string owned by the caller (free with mem_free), or null. Until the registry has
// started this is a plain copy of `text`.
char* registry_lookup(const char* text, int mode);
