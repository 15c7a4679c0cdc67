// The GObject API from Vala, through lumora-glib.vapi: reads args[1] (once
// blocking, once asynchronously), meets the error of a subject without
// value, then hears one change of args[2]. Prints "value ...", "no data
// ...", "async ..." and "changed ...", and returns 0 once the change came
// (1 when it did not within 20 s).
int main (string[] args) {
    var client = Lumora.Client.get_default ();
    var loop = new MainLoop ();
    int status = 1;
    int awaited = 2;  // the asynchronous answer and the change
    Lumora.Subscription subscription;
    try {
        print ("value %s\n", client.read_sync (args[1], null));
        subscription = client.subscribe (args[2], Lumora.SubscribeFlags.NONE);
    } catch (Error e) {
        printerr ("failed: %s\n", e.message);
        return 1;
    }
    try {
        client.read_sync ("Ctx/Nothing/Here", null);
        print ("no error\n");
    } catch (Lumora.ClientError.NO_DATA e) {
        print ("no data %s\n", e.message);
    } catch (Error e) {
        print ("other error %s\n", e.message);
    }
    client.read.begin (args[1], null, null, (source, result) => {
        try {
            print ("async %s\n", client.read.end (result));
        } catch (Error e) {
            print ("async error %s\n", e.message);
        }
        if (--awaited == 0) loop.quit ();
    });
    subscription.changed.connect ((data) => {
        print ("changed %s\n", data);
        status = 0;
        if (--awaited == 0) loop.quit ();
    });
    Timeout.add_seconds (20, () => {
        printerr ("no change or answer within 20 s\n");
        loop.quit ();
        return Source.REMOVE;
    });
    loop.run ();
    subscription.cancel ();
    return status;
}
