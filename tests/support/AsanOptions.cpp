// How AddressSanitizer runs in every program that uses GLib, whichever way it is run.
//
// What threads keep in the thread-local storage of libraries that are loaded later is not noted:
// for GnuTLS, which GIO loads, the note is wrong, and LeakSanitizer crashes on it.
extern "C" {

[[gnu::visibility("default")]] const char* __asan_default_options();

const char* __asan_default_options() {
  return "intercept_tls_get_addr=0";
}

// A message that libmosquitto, the tests' foreign client, was handing on when its connection broke.
[[gnu::visibility("default")]] const char* __lsan_default_suppressions();

const char* __lsan_default_suppressions() {
  return "leak:libmosquitto.so\n";
}

}  // extern "C"
