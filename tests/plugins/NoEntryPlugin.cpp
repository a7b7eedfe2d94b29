// A test shared library without the plug-in entry point.
extern "C" __attribute__((visibility("default"))) int SomethingElse() {
    return 1;
}
