/* sqlite_mutexes: SQLite on the library's mutexes, through SQLite's own interface for that.
 *
 * The recursive ones (one per connection) are a_mutex, the fast and the static ones safe mutexes. */
#ifndef DEMO_SQLITE_MUTEXES_H
#define DEMO_SQLITE_MUTEXES_H

/* Starts SQLite with these mutexes and shuts it down: it lives around every other use of SQLite, in a process with one
 * thread at both ends. */
class c_sqlite_on_library_mutexes {
public:
    c_sqlite_on_library_mutexes();
    ~c_sqlite_on_library_mutexes();
    c_sqlite_on_library_mutexes(const c_sqlite_on_library_mutexes&) = delete;
    c_sqlite_on_library_mutexes& operator=(const c_sqlite_on_library_mutexes&) = delete;

    bool is_ready() const { return ready; }

private:
    bool ready;
};

#endif
