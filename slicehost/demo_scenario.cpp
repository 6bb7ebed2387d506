#include "slicehost/demo_scenario.h"

namespace tsm::sim {

const std::string& DemoScenarioJson() {
  static const std::string kDemo = R"json({
  "name": "demo",
  "description": "slicehost demo: nine parent orders of every slicing kind against a simulated exchange, on a virtual clock starting 08:59:30 exchange time (sessions 09:00~11:30;13:00~15:00).",
  "start": "2026-11-23T00:59:30Z",
  "time_offset": 28800,
  "duration_ms": 75000,
  "securities": [
    {"symbol": "QX.S.TW.2330", "info": "2330|100|x|100", "sessions": "09:00~11:30;13:00~15:00"},
    {"symbol": "QX.S.TW.2317", "info": "2317|100|x|100", "sessions": "09:00~11:30;13:00~15:00",
     "behaviour": {"ack_ms": 20, "fill_ms": 1100, "fill_steps": 4, "cancel_ms": 10, "replace_ms": 10}},
    {"symbol": "QX.S.TW.2454", "info": "2454|100|x|100", "sessions": "09:00~11:30;13:00~15:00", "volume": 120000,
     "behaviour": {"ack_ms": 20, "fill_ms": 800, "fill_steps": 10, "cancel_ms": 30}}
  ],
  "exchange": {"ack_ms": 20, "fill_ms": 200, "fill_steps": 2},
  "steps": [
    {"at": 1000, "do": "Submit", "comment": "before the open: parked until 09:00",
     "fields": {"LevelKey": "P1", "SliceID": "S1", "Symbol": "QX.S.TW.2330", "Side": "B", "SecurityType": "S",
                "Account": "A1", "Price": 5000, "PriceString": "50.00", "OrderType": 2, "TimeInForce": 0,
                "OrderQty": 3000, "LeavesQty": 3000, "SendQty": 3000, "DiscloseQty": 1000, "Variance": 0,
                "SlicedType": 1, "Interval": 0, "LeftoverAction": 0}},
    {"at": 32000, "do": "Submit", "comment": "iceberg, variance 20 %, rounded to the lot of 100",
     "fields": {"LevelKey": "P2", "SliceID": "S2", "Symbol": "QX.S.TW.2330", "Side": "B", "SecurityType": "S",
                "Account": "A1", "Price": 5010, "PriceString": "50.10", "OrderType": 2, "TimeInForce": 0,
                "OrderQty": 8000, "LeavesQty": 8000, "SendQty": 8000, "DiscloseQty": 1000, "Variance": 20,
                "SlicedType": 1, "Interval": 0, "LeftoverAction": 0}},
    {"at": 32000, "do": "Submit", "comment": "timed, leftover action 0: earlier children keep working",
     "fields": {"LevelKey": "P3", "SliceID": "S3", "Symbol": "QX.S.TW.2317", "Side": "S", "SecurityType": "S",
                "Account": "A1", "Price": 10450, "PriceString": "104.50", "OrderType": 2, "TimeInForce": 0,
                "OrderQty": 3000, "LeavesQty": 3000, "SendQty": 3000, "DiscloseQty": 1000, "Variance": 0,
                "SlicedType": 2, "Interval": 3000, "LeftoverAction": 0}},
    {"at": 32000, "do": "Submit", "comment": "timed, leftover action 1: cancel the previous child, roll its rest over",
     "fields": {"LevelKey": "P4", "SliceID": "S4", "Symbol": "QX.S.TW.2317", "Side": "S", "SecurityType": "S",
                "Account": "A1", "Price": 10450, "PriceString": "104.50", "OrderType": 2, "TimeInForce": 0,
                "OrderQty": 3000, "LeavesQty": 3000, "SendQty": 3000, "DiscloseQty": 1000, "Variance": 0,
                "SlicedType": 2, "Interval": 3000, "LeftoverAction": 1}},
    {"at": 32000, "do": "Submit", "comment": "timed, leftover action 2: replace the previous child",
     "fields": {"LevelKey": "P5", "SliceID": "S5", "Symbol": "QX.S.TW.2317", "Side": "S", "SecurityType": "S",
                "Account": "A1", "Price": 10450, "PriceString": "104.50", "OrderType": 2, "TimeInForce": 0,
                "OrderQty": 3000, "LeavesQty": 3000, "SendQty": 3000, "DiscloseQty": 1000, "Variance": 0,
                "SlicedType": 2, "Interval": 3000, "LeftoverAction": 2}},
    {"at": 33000, "do": "Submit", "comment": "by volume: a child is cancelled after 3 more shares trade",
     "fields": {"LevelKey": "P6", "SliceID": "S6", "Symbol": "QX.S.TW.2454", "Side": "B", "SecurityType": "S",
                "Account": "A1", "Price": 88000, "PriceString": "880.00", "OrderType": 2, "TimeInForce": 0,
                "OrderQty": 3000, "LeavesQty": 3000, "SendQty": 3000, "DiscloseQty": 1000, "Variance": 0,
                "SlicedType": 3, "Interval": 1, "LeftoverAction": 1}},
    {"at": 34000, "do": "Submit", "comment": "slice-all: every child at once",
     "fields": {"LevelKey": "P7", "SliceID": "S7", "Symbol": "QX.S.TW.2330", "Side": "S", "SecurityType": "S",
                "Account": "A2", "Price": 4990, "PriceString": "49.90", "OrderType": 2, "TimeInForce": 0,
                "OrderQty": 4500, "LeavesQty": 4500, "SendQty": 4500, "DiscloseQty": 1000, "Variance": 0,
                "SlicedType": 4, "Interval": 0, "LeftoverAction": 0}},
    {"at": 34000, "do": "Submit", "comment": "slice-all on release: waits for TRADE.SLICE.ORDER",
     "fields": {"LevelKey": "P8", "SliceID": "S8", "Symbol": "QX.S.TW.2330", "Side": "B", "SecurityType": "S",
                "Account": "A2", "Price": 4980, "PriceString": "49.80", "OrderType": 2, "TimeInForce": 0,
                "OrderQty": 3000, "LeavesQty": 3000, "SendQty": 3000, "DiscloseQty": 1000, "Variance": 0,
                "SlicedType": 5, "Interval": 0, "LeftoverAction": 0}},
    {"at": 35000, "do": "Submit", "comment": "timed, to be cancelled with its children",
     "fields": {"LevelKey": "P9", "SliceID": "S9", "Symbol": "QX.S.TW.2317", "Side": "B", "SecurityType": "S",
                "Account": "A3", "Price": 10400, "PriceString": "104.00", "OrderType": 2, "TimeInForce": 0,
                "OrderQty": 5000, "LeavesQty": 5000, "SendQty": 5000, "DiscloseQty": 1000, "Variance": 0,
                "SlicedType": 2, "Interval": 2500, "LeftoverAction": 0}},
    {"at": 36000, "do": "Volume", "symbol": "QX.S.TW.2454", "volume": 120002},
    {"at": 37000, "do": "Volume", "symbol": "QX.S.TW.2454", "volume": 120004},
    {"at": 39000, "do": "Release", "order": "P8"},
    {"at": 40000, "do": "Cancel", "order": "P9", "all": true},
    {"at": 41000, "do": "Volume", "symbol": "QX.S.TW.2454", "volume": 120011},
    {"at": 45000, "do": "Volume", "symbol": "QX.S.TW.2454", "volume": 120020}
  ]
})json";
  return kDemo;
}

}  // namespace tsm::sim
