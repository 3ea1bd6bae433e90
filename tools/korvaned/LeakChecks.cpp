// What the leak checker of a sanitized build of the service leaves aside.
//
// The service reaches its databases through drivers that unixODBC loads with
// dlopen, and looks their functions up with dlsym on the threads of its
// links. glibc keeps the text of a failed look-up in a buffer of the thread
// that made it; when that thread ends the buffer is no longer reachable, and
// the leak checker reports it, by chance of which thread looked up what. It
// is glibc's, bounded (one buffer a thread) and not the service's to free.
// Only sanitized builds call this function; other builds never do.
extern "C" const char* __lsan_default_suppressions() { return "leak:_dlerror_run\n"; }
