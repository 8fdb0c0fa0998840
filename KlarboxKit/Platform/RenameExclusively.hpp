#pragma once

namespace klarbox {

/// Moves an entry of one open folder into another, or to another name, as one step that never
/// replaces anything of anybody's: EEXIST when the new name is taken. EXDEV when the folders are
/// not on the same mounted file system. Where the file system has no such step, something empty
/// takes the new name first and is replaced, and what is replaced is known only where nobody else
/// can write to `toFolder`. Names are single components; links are moved, not followed. Answers an
/// errno value, 0 for none. Safe from any thread.
int renameExclusively(int fromFolder, const char *fromName, int toFolder, const char *toName);

} // namespace klarbox
