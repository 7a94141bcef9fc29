// What ThreadSanitizer must overlook in every program that uses GLib, whichever way it is run.
//
// GLib is not instrumented and locks with futexes of its own, so that its hand-overs between
// threads look like races. Only what these libraries themselves do with memory is overlooked;
// callbacks that they call, and everything of this project, are checked.
extern "C" {

[[gnu::visibility("default")]] const char* __tsan_default_suppressions();

const char* __tsan_default_suppressions() {
  return "called_from_lib:libglib-2.0.so\n"
         "called_from_lib:libgobject-2.0.so\n"
         "called_from_lib:libgio-2.0.so\n";
}

}  // extern "C"
