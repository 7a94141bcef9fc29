// What ThreadSanitizer must overlook in every program that uses GLib, whichever way it is run.
//
// GLib is not instrumented and locks with futexes of its own, so that its hand-overs between
// threads look like races. Only what these libraries themselves do with memory is overlooked;
// callbacks that they call, and everything of this project, are checked. The same goes for GIO's
// TLS, which calls nothing of this project; GIO unloads it once, so that it cannot be
// called_from_lib. libmosquitto takes its locks in a cycle when a handler publishes: a client of
// the tests uses it on one thread only, which cannot block itself so.
extern "C" {

[[gnu::visibility("default")]] const char* __tsan_default_suppressions();

const char* __tsan_default_suppressions() {
  return "called_from_lib:libglib-2.0.so\n"
         "called_from_lib:libgobject-2.0.so\n"
         "called_from_lib:libgio-2.0.so\n"
         "race:libgiognutls.so\n"
         "race:libgnutls.so\n"
         "race:libnettle.so\n"
         "race:libtasn1.so\n"
         "race:__vasprintf_internal\n"
         "mutex:libgiognutls.so\n"
         "deadlock:libmosquitto.so\n";
}

}  // extern "C"
