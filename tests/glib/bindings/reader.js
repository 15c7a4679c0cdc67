// The GObject API from JavaScript (gjs), through Lumora-1.0.typelib: reads
// ARGV[0], meets the error of a subject without value, then hears one change
// of ARGV[1]. Prints "value ...", "no data ..." and "changed ...", and exits
// with 0 once the change came (1 when it did not within 20 s).
imports.gi.versions.Lumora = '1.0';
const {GLib, Lumora} = imports.gi;
const System = imports.system;

const [readSubject, watchedSubject] = ARGV;
const client = Lumora.Client.get_default();
print(`value ${client.read_sync(readSubject, null, null)}`);
try {
    client.read_sync('Ctx/Nothing/Here', null, null);
    print('no error');
} catch (e) {
    if (e.matches(Lumora.ClientError, Lumora.ClientError.NO_DATA))
        print(`no data ${e.message}`);
    else
        print(`other error ${e.message}`);
}

const loop = GLib.MainLoop.new(null, false);
let status = 1;
const subscription = client.subscribe(watchedSubject, Lumora.SubscribeFlags.NONE);
subscription.connect('changed', (_subscription, data) => {
    print(`changed ${data}`);
    status = 0;
    loop.quit();
});
GLib.timeout_add_seconds(GLib.PRIORITY_DEFAULT, 20, () => {
    printerr('no change within 20 s');
    loop.quit();
    return GLib.SOURCE_REMOVE;
});
loop.run();
subscription.cancel();
System.exit(status);
