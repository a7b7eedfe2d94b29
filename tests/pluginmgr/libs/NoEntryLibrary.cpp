// A test shared library that exports something, but not the plug-in entry points.
extern "C" __attribute__((visibility("default"))) int SomethingElse() {
    return 1;
}
