// What the leak and race checkers of a sanitized build of the service leave
// aside. Only sanitized builds call these functions; other builds never do.
//
// Leaks: the service reaches its databases through drivers that unixODBC
// loads with dlopen, and looks their functions up with dlsym on the threads
// of its links. glibc keeps the text of a failed look-up in a buffer of the
// thread that made it; when that thread ends the buffer is no longer
// reachable, and the leak checker reports it, by chance of which thread
// looked up what. It is glibc's, bounded (one buffer a thread) and not the
// service's to free.
extern "C" const char* __lsan_default_suppressions() { return "leak:_dlerror_run\n"; }

// Races: the PostgreSQL driver brings in the Kerberos support library, which
// locks one of its mutexes from a thread's key destructors and destroys it in
// its own finalizer when the process exits. The links' threads are detached:
// a thread whose end was counted may still be running those destructors, and
// nothing orders them before the finalizer that exit() runs. Both sides are
// that library's, at the end of the process.
extern "C" const char* __tsan_default_suppressions() { return "race:libkrb5support.so\n"; }
