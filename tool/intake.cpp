#include "tool/stages.h"

// The intake has not landed yet: no input gives a point, so every run ends with exit code 1.
Tag load_maps(char**, int) { return 0; }
bool save_map(const char*, Tag, int) { return false; }
