// A script client of TradeSliceManager: creates the object through the
// registry by ProgID and calls the host interface's two methods through
// IDispatch. Exits 0 when every call went through.
var manager = new ActiveXObject("Norda.TradeSliceManager");
manager.SetStage(1, 1);
manager.SetTopic("TRADE.SLICE.ORDER", 1, 1, "0", 0);
manager.SetStage(2, 1);
WScript.Echo("client done");
WScript.Quit(0);
