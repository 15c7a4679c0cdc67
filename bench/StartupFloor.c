/* A program that only starts and exits, linked either as the minimal GDBus
 * program is (GIO) or as `lumora` is (liblumora-api and what it brings: the
 * C++ runtime, jsoncpp, the library's own objects). The difference between
 * the two is what loading the library costs a one-shot process before it
 * does anything. */
#ifdef LINK_LUMORA
#include <lumora/lumora-api.h>
#else
#include <gio/gio.h>
#endif

int main(int argc, char** argv) {
    (void)argv;
    /* Never true when run by the benchmark; it keeps the library a real
     * dependency whatever the linker's --as-needed default is. */
    if (argc > 1000) {
#ifdef LINK_LUMORA
        return Is_LMFSupported() ? 1 : 2;
#else
        return g_dbus_is_name("a.b") ? 1 : 2;
#endif
    }
    return 0;
}
