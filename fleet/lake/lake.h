// The lake: a folder of Parquet files that any engine reads as tables.
//
//   FOLDER/day=2026-05-09/event=change_page/records.parquet
//   FOLDER/day=2026-05-09/_manifest.json
//
// `day` is the day of ingestion, so that a device's wrong clock makes no folder. A day's folder
// takes its place as a whole, and the same day exported again gives the same rows in the same
// order: by device, store and number. Beside the events stand `missing`, runs of numbers that no
// record came with, and `ingestion`, counts of what became of batches and records. Engines pass
// over names that begin with an underscore.

#ifndef FLEET_LAKE_LAKE_H_
#define FLEET_LAKE_LAKE_H_

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "fleet/ingest/database.h"
#include "fleet/lake/duckdb.h"
#include "tools/base/status.h"

namespace velmora::usage_stat::fleet {

class Lake {
 public:
  // `folder` is made when there is none. What does not fit `memory` goes to a file in it.
  static base::Status Open(const std::string& folder, const std::string& memory,
                           std::unique_ptr<Lake>* lake);

  // Writes the records that the database took in on `day`, such as 2026-05-09, which must be over,
  // and notes the export there once its manifest matches. `records` tells how many there are.
  base::Status Export(Database* database, const std::string& day, std::int64_t* records);

  // Removes the days before `day`.
  base::Status RemoveBefore(const std::string& day);

  // Rewrites the files that hold one of the devices with these names, once for each name: the lake
  // remembers. A file takes the place of the old one when it is complete; after a failure call it
  // again. `rewritten` counts files.
  base::Status Forget(const std::vector<std::string>& names, std::int64_t* rewritten);

  // The days that it holds, in order.
  base::Status Days(std::vector<std::string>* days) const;

  DuckDb& engine() { return *engine_; }
  const std::string& folder() const { return folder_; }

 private:
  base::Status LoadDay(Database* database, const std::string& day);
  base::Status WriteTable(const std::string& select, const std::string& folder,
                          const std::string& table);
  // How many rows each table below `folder` has.
  base::Status CountRows(const std::string& folder, std::map<std::string, std::int64_t>* rows);
  base::Status Rewrite(const std::string& file, const std::string& devices);

  std::string folder_;
  std::unique_ptr<DuckDb> engine_;
};

}  // namespace velmora::usage_stat::fleet

#endif  // FLEET_LAKE_LAKE_H_
