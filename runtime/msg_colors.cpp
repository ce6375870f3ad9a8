// Console colours by message level.
//
// Colours are kept as the console's 16-bit attribute codes, so that the letters, defaults and
// the codes callers see stay those of the colour table; only writing one to the console turns it
// into an ANSI escape sequence. Attribute 0 stands for the console's own colour, which a
// terminal cannot report; it is restored with the reset sequence.
#include <cstring>

#include "runtime/msg.h"
#include "runtime/msg_internal.h"

namespace {

constexpr uint16_t ATTR_CONSOLE_OWN = 0x0;
constexpr uint16_t ATTR_BLACK = 0x8;
constexpr uint16_t ATTR_RED = 0xc;
constexpr uint16_t ATTR_GREEN = 0xa;
constexpr uint16_t ATTR_YELLOW = 0xe;
constexpr uint16_t ATTR_BLUE = 0x9;
constexpr uint16_t ATTR_MAGENTA = 0xd;
constexpr uint16_t ATTR_CYAN = 0xb;

// fatal, error, warn, info, progr, debug, vdebg
constexpr uint16_t DEFAULT_TABLE[msg_detail::LEVEL_COUNT] = {
    ATTR_RED, ATTR_RED, ATTR_CYAN, ATTR_CONSOLE_OWN, ATTR_CONSOLE_OWN, ATTR_GREEN, ATTR_GREEN};

uint16_t g_table[msg_detail::LEVEL_COUNT] = {
    ATTR_RED, ATTR_RED, ATTR_CYAN, ATTR_CONSOLE_OWN, ATTR_CONSOLE_OWN, ATTR_GREEN, ATTR_GREEN};
bool g_colors_on = false;
bool g_console_attribute_known = false;
uint16_t g_console_attribute = ATTR_CONSOLE_OWN;  // as found at the first msg_set_colors
uint16_t g_restore_attribute = ATTR_CONSOLE_OWN;

// Attribute of a colour letter; false for a letter outside [.rgbcmyk].
bool letter_attribute(char letter, uint16_t* attribute)
{
    switch (letter) {
    case '.': *attribute = g_console_attribute; return true;
    case 'k': *attribute = ATTR_BLACK; return true;
    case 'r': *attribute = ATTR_RED; return true;
    case 'g': *attribute = ATTR_GREEN; return true;
    case 'y': *attribute = ATTR_YELLOW; return true;
    case 'b': *attribute = ATTR_BLUE; return true;
    case 'm': *attribute = ATTR_MAGENTA; return true;
    case 'c': *attribute = ATTR_CYAN; return true;
    default: return false;
    }
}

const char* escape_of(uint16_t attribute)
{
    switch (attribute) {
    case ATTR_BLACK: return "\033[90m";
    case ATTR_RED: return "\033[91m";
    case ATTR_GREEN: return "\033[92m";
    case ATTR_YELLOW: return "\033[93m";
    case ATTR_BLUE: return "\033[94m";
    case ATTR_MAGENTA: return "\033[95m";
    case ATTR_CYAN: return "\033[96m";
    default: return "\033[0m";
    }
}

void write_attribute(uint16_t attribute)
{
    const char* escape = escape_of(attribute);
    msg_detail::write_ignoring_errors(2, escape, strlen(escape));
}

}  // namespace

namespace msg_detail {

bool colors_active() { return g_colors_on && console().char_device; }

void write_level_color(int level_index)
{
    if (level_index >= 0 && level_index < LEVEL_COUNT)
        write_attribute(g_table[level_index]);
}

void write_restore_color() { write_attribute(g_restore_attribute); }

void reset_colors_for_tests()
{
    std::memcpy(g_table, DEFAULT_TABLE, sizeof g_table);
    g_colors_on = false;
    g_console_attribute_known = false;
    g_console_attribute = ATTR_CONSOLE_OWN;
    g_restore_attribute = ATTR_CONSOLE_OWN;
}

}  // namespace msg_detail

void msg_set_colors(const char* text)
{
    if (!g_console_attribute_known && msg_detail::console().valid) {
        g_console_attribute = ATTR_CONSOLE_OWN;
        g_console_attribute_known = true;
    }
    g_colors_on = false;
    if (!text || text[0] == '-' || text[0] == 'f' || text[0] == '0' || strcmp(text, "off") == 0)
        return;

    std::memcpy(g_table, DEFAULT_TABLE, sizeof g_table);
    g_table[3] = g_table[4] = g_console_attribute;
    g_restore_attribute = g_console_attribute;
    g_colors_on = true;
    if (text[0] == 't' || text[0] == '1' || strcmp(text, "on") == 0)
        return;

    // One letter per level in index order; a bad letter keeps that level's colour.
    const char* letter = text;
    if (*letter == '"')
        ++letter;
    for (int level = 0; *letter && level < msg_detail::LEVEL_COUNT; ++letter, ++level) {
        uint16_t attribute;
        if (letter_attribute(*letter, &attribute))
            g_table[level] = attribute;
        else
            msg_warn_n(18, "unknown color '%c', expected [.rgbcmyk]", *letter);
    }
}

uint16_t msg_color_attribute(int level_index)
{
    return level_index >= 0 && level_index < msg_detail::LEVEL_COUNT ? g_table[level_index] : 0;
}

bool msg_colors_on() { return g_colors_on; }
