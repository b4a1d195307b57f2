// Events as tables with typed columns, the same ones in PostgreSQL and in the lake.
//
// Every table begins with these columns, and has one for each field of the event's dictionary after
// them; a field that a policy dropped is NULL.
//
//   device     the first 16 digits of the device's name, as a signed number
//   store      the same of the store's id; (device, store, number) is one record
//   number     the record's number on the device
//   level      under which consent it left: 1 basic, 2 full
//   time       when it happened, UTC, after correction of the device's clock; NULL when that clock
//              can't be right
//   device_ms  what the device's clock said, in milliseconds since 1970, where `time` differs

#ifndef FLEET_LAKE_TABLES_H_
#define FLEET_LAKE_TABLES_H_

#include <string>
#include <string_view>

#include "tools/records/catalogue.h"

namespace velmora::usage_stat::fleet {

// "change_page" for ChangePageEvent.
std::string TableName(std::string_view event);

// What makes the database's views: schema `analysis` with a view for each event, for the role
// analyst, and schema `figures` with sums over many devices, for the role reader. Makes the roles
// when there are none, and replaces the views that an earlier version made. The sums are those of
// the moment; RefreshSql() brings them up to date.
std::string ViewsSql();
std::string RefreshSql();

// The rows of the lake for one event, which the database calls by `event`, in order, from the
// export's table `records`.
std::string LakeSelect(const records::RecordType& type, int event);

// The same columns, and no rows: what the lake is asked for when it holds no such event.
std::string EmptyLakeSelect(const records::RecordType& type);

// How PostgreSQL tells a device and a store of tables `d` and `s`.
constexpr const char* kDeviceSql = "('x' || left(d.name, 16))::bit(64)::bigint";
constexpr const char* kStoreSql = "('x' || left(encode(s.store_id, 'hex'), 16))::bit(64)::bigint";

}  // namespace velmora::usage_stat::fleet

#endif  // FLEET_LAKE_TABLES_H_
