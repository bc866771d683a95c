#pragma once

/* Makes texts of hardware safe. A sound card chooses its own name and serial number. */

#include <string>
#include <string_view>

/*
 * Returns `text` on one line, as valid UTF-8 without control characters, for logs, the bus and
 * files. U+FFFD replaces each invalid byte, control character and character that changes the
 * direction of writing. Blanks around the text are removed, and it is cut to 255 bytes.
 */
std::string control_text_clean(std::string_view text);
