// An outside automation client of the base-data component: created by ProgID
// through the registry, called through IDispatch by name.
var record = new ActiveXObject("QX_Data.BaseData.1");
var id = record.BeginUpdate();
record.SetData(id, 3, "OrderQty", 1500);
record.SetData(id, 3, "LevelKey", "K-1");
record.EndUpdate(id);
WScript.Echo("update " + id + " OrderQty=" + record.GetData(3, "OrderQty") + " LevelKey=" + record.GetData(3, "LevelKey"));
