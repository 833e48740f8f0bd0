// A library with nothing in it but a function to call.
extern "C" __attribute__((visibility("default"))) int empty_call();
int empty_call() {
    return 0;
}
