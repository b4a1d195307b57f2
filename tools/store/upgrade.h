// Databases of the first schema. Their records go, in steps, to archives of this one, while a new
// database takes what comes in.

#ifndef TOOLS_STORE_UPGRADE_H_
#define TOOLS_STORE_UPGRADE_H_

#include <functional>
#include <string>
#include <vector>

#include "tools/store/sqlite.h"

namespace velmora::usage_stat::store {

// Where the database of the first schema stands while its records are being moved.
std::string UpgradedPath(const std::string& path);

// Whether there is something for BeginUpgrade() to do at `path`.
bool NeedsUpgrade(const std::string& path);

// Puts a new database in the place of one of the first schema, which is listed in it like an
// archive. Takes the counts, the runs and the list of archives along, and nothing that grows with
// the records. Safe to be killed at any moment: the next call goes on. IsDamage() when the old one
// is damaged; then that is at `path`.
Status BeginUpgrade(const std::string& path);

// Moves what is left in files of the first schema to archives in `directory`, each step bounded by
// the size of an archive, until it is done or `should_stop`. Needs space for one unpacked archive
// and for the compressed ones. Safe to be killed at any moment: the next call goes on.
//
// A file with broken pages is kept beside the database for Recover(), an archive unpacked, and the
// numbers that did not come are noted as unreadable; `damages`, which may be null, gets a line for
// each.
Status GoOnUpgrading(const std::string& database_path, const std::string& directory,
                     const std::function<bool()>& should_stop,
                     std::vector<std::string>* damages = nullptr);

}  // namespace velmora::usage_stat::store

#endif  // TOOLS_STORE_UPGRADE_H_
