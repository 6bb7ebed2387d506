// The new-order command: one line of comma-separated KEY=value pairs that a
// child order leaves the component as. Two templates: A for the first and
// following slices, B for slice-all children (no GROUPMASTER; fixed
// "SlicedType=4,DiscloseQty=0"). Absent fields print their "not set" defaults
// (the smallest 32-bit and 64-bit integers) as they stand; nothing is escaped.
//
// Threading: pure functions over a record the caller holds.
#pragma once

#include <cstdint>

#include "data/text.h"

namespace tsm {

class CBaseData;

enum class CommandTemplate { kA, kB };

// Every value the templates print, gathered from a parent order record.
struct CommandFields {
  CString type, broker_id, account, symbol, symbol_a, symbol_b, side, side1, side2;
  int32_t qty = 0;
  int64_t price = 0;
  CString price_string;
  int64_t stop_price = 0;
  CString stop_price_string;
  int32_t trailing_field = 0, trailing_type = 0;
  int64_t trailing_amount = 0, touch_price = 0;
  CString touch_price_string;
  int32_t touch_field = 0, touch_condition = 0, order_type = 0, position_effect = 0, time_in_force = 0;
  int32_t synthetic = 0, group_type = 0;
  CString group_id;  // the record's "GroupID"; callers put the derived id here for group type 2
  CString chase_price;
  int32_t spread = 0;
  CString strategy, user_key1, user_key2, user_key3, sliced_id;
  int32_t sliced_price_field = 0, sliced_ticks = 0;
  CString ext_commands;
  int32_t consecutive = 0, number_of_retries = -1, retry_interval = -1;
  CString contingent_symbol, group_prefix, ori_level_key, spread_id;
};

// Reads every field of the command from `parent` with the defaults of the
// command format; `qty` stays 0 for the caller to set.
CommandFields GatherCommandFields(CBaseData& parent);

// The parent fields of one slice decision that the sizing and the slice
// builder read for their own use, kept for the command of that same decision
// so that no field is read twice. Never kept past the decision: the host may
// rewrite the record at any time.
struct SliceReads {
  enum Field : uint32_t {
    kType = 1u << 0,         // "SecurityType"
    kSymbol = 1u << 1,       // "Symbol"
    kSide = 1u << 2,         // "Side"
    kSlicedId = 1u << 3,     // "SliceID"
    kGroupType = 1u << 4,    // "GroupType"
    kGroupId = 1u << 5,      // "GroupID"
    kOriLevelKey = 1u << 6,  // "OriLevelKey", or "LevelKey" when that is empty
  };
  CommandFields fields;
  uint32_t known = 0;  // the Field bits whose member of `fields` holds the read value
};

// Fills `reads.fields` as GatherCommandFields does, reading only the fields
// whose bits are not in `reads.known`.
void GatherCommandFields(CBaseData& parent, SliceReads& reads);

CString FormatCommand(CommandTemplate which, const CommandFields& fields);

// The format text of a template, as FormatCommand fills it.
const wchar_t* CommandTemplateText(CommandTemplate which);

// Cleans a ";"-separated list of key=value items: items without "=" and
// "CancelCloseWorking" items (any case) are dropped, keys and values trimmed;
// then "FitOrderFreq=1;" and "FlowControl=1;" are put in front when their
// flags are 1 and the text does not already hold them (the trailing ";" of an
// otherwise empty result stays).
CString NormaliseExtCommands(const CString& ext_commands, int32_t fit_ord_freq, int32_t flow_control);

// The value after "SlicedID=" up to the next ","; empty when either is missing.
CString ExtractSlicedId(const CString& command);

// "%s-#-Sliced-#-%ld": the group id of a child of a group-type-2 parent.
CString DerivedGroupId(const CString& group_id, int32_t number);

}  // namespace tsm
