#pragma once

namespace klarbox {

/// Moves an entry of one open folder into another, or to another name, as one step that never
/// replaces anything: EEXIST when the new name is taken. EXDEV when the folders are not on the same
/// mounted file system, EINVAL when the file system cannot promise not to replace. Names are single
/// components; links are moved, not followed. Answers an errno value, 0 for none. Safe from any
/// thread.
int renameExclusively(int fromFolder, const char *fromName, int toFolder, const char *toName);

} // namespace klarbox
