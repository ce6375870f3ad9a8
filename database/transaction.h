// The object-level face of the tag store: everything above the database stores, replaces,
// names and removes elements through the one Transaction.
//
// There is no transaction state in this system (no commit, abort, scopes or versions): the
// slots for them exist and do nothing. Elements are held under type 63 with their own address
// as the record's data, and type 63 is untracked, so access takes no pin.
//
// Threads: the singleton's creation, the tag-name registry and the tag_to_name string take no
// lock; they belong to the thread that runs the main line or to serial set-up code. The element
// itself has no lock either: an edit handle gives no exclusive access.
#pragma once

#include <cstdint>

#include "database/db.h"
#include "database/element.h"

struct Thread_context;

namespace QV::SCHED {
class Job;
}

namespace QV::DB {

// Out record of get_scope.
struct Transaction_scope {
    uint32_t value;
    uint32_t reserved[2];
};

class Transaction {
public:
    virtual ~Transaction();
    virtual void pin();
    virtual void unpin();
    virtual bool is_open() const;                    // false
    virtual void wait();                             // the host poll hook with 1
    virtual bool is_valid() const;                   // true
    // A Dummy_job under a job tag (as_job) or a plain Dummy_tag; no name.
    virtual Db_tag store_dummy(Db_tag* tag, bool as_job);
    // Stores the job as row store_job does, then announces the new job tag with type 63.
    virtual Db_tag store_job_over(Db_tag tag, SCHED::Job* job, const char* name);
    // Wraps the job in a Job_param element and has the job module make a job tag for it.
    virtual Db_tag store_job(Db_tag* tag, SCHED::Job* job, const char* name);
    // Replaces whatever `tag` holds with `element` (the old data is deleted), type 63.
    virtual void store_over(Db_tag tag, Element_base* element, const char* name);
    // Stores a new element under a new tag, written to `*tag` and returned. The element is not
    // copied: from here on the database owns it. `name` may be null. The record's data is the
    // Element_base address; a class with several bases gets back with static_cast<T*>.
    virtual Db_tag store(Db_tag* tag, Element_base* element, const char* name = nullptr);
    virtual void flush();
    // qv_db_delete, then the tag's name is dropped (an older name of the tag stays).
    virtual void remove(Db_tag tag);
    // A job tag goes to the job module's schedule hook; other tags: nothing.
    virtual void schedule(Db_tag tag);
    // The tag's name or null. The answer lives in one process-wide string that the next call
    // overwrites; callers on several threads bring their own lock.
    virtual const char* tag_to_name(Db_tag tag);
    // 0 for a null, empty or unknown name. Written to `*tag` and returned.
    virtual Db_tag name_to_tag(Db_tag* tag, const char* name);
    // The element's class id; 0 for plain data or a type-63 tag whose data is gone.
    virtual uint32_t get_class_id(Db_tag tag);
    virtual void get_id(uint32_t* id);               // stores 0
    virtual int get_host_count();                    // 0
    virtual void get_scope(Transaction_scope* scope, uint32_t level, uint32_t value);

protected:
    Transaction();
    friend Transaction* get_transaction();
};

// The one transaction, made at first use and never freed.
Transaction* get_transaction();

// ---- Hooks to the layers above ---------------------------------------------------------------
// The job rows need the job module; it fills this at its init. A null member makes the row
// report error 1 of module DBN ("transaction: no job support for %s") and store nothing.
struct Transaction_job_support {
    Element_base* (*make_dummy_tag)();
    SCHED::Job* (*make_dummy_job)();
    // The job module's "storing a job": returns the new job tag (0 on failure).
    Db_tag (*store_job)(Transaction* transaction, SCHED::Job* job, const char* name);
    void (*announce)(Db_tag tag, int type);
    void (*schedule)(const Db_tag* tags, int count);
};
void transaction_set_job_support(const Transaction_job_support& support);
const Transaction_job_support& transaction_job_support();

// Host messaging's poll, called by Transaction::wait with 1. Null: nothing to poll.
void transaction_set_poll_hook(void (*poll)(int value));

// ---- Tags created by this thread -------------------------------------------------------------
// Every stored tag is appended to the creating thread's list, so that the end of a thread
// context can remove them (the DBN job event handler does). The list is the head of module
// DBN's per-thread data when DBN has registered its context area (at least 16 bytes), and a
// thread-local list otherwise. Its array comes from module DBN's allocation.
struct Created_tags {
    Db_tag* tags;        // growable array
    uint32_t count;
    uint32_t capacity;
};
// The calling thread's list; null on a thread without a Thread_context.
Created_tags* created_tags();
void created_tags_append(Db_tag tag);
// Takes the last entry off (0 when empty).
Db_tag created_tags_take_last();
// Gives every listed tag to Transaction::remove, newest first, and empties the list.
void created_tags_remove_all();
// Frees the array of `list` (for DBN's context-area exit).
void created_tags_free(Created_tags* list);

// ---- Access handles --------------------------------------------------------------------------
// A bound tag, kept on a client's stack or inside its own handle object. Binding releases what
// the handle held first. Holding an edit binding and releasing it pushes the change to hosts
// that hold the tag. Not copyable (a copy would release twice); bind(other) gives a second,
// independent binding of the same tag.
class Access_handle {
public:
    Access_handle() = default;
    // REQUIRES for a non-zero tag: the tag exists (the access path's fatals apply otherwise).
    Access_handle(Db_tag tag, uint32_t class_id, bool is_edit = false);
    Access_handle(const Access_handle&) = delete;
    Access_handle& operator=(const Access_handle&) = delete;
    Access_handle(Access_handle&& other) noexcept;
    Access_handle& operator=(Access_handle&& other) noexcept;
    ~Access_handle() { release(); }

    // Returns the bound object (the record's data), null for tag 0. The class id is not
    // checked: the handle trusts the caller's knowledge of what is behind the tag.
    void* bind(Db_tag tag, uint32_t class_id, bool is_edit = false,
               Transaction* transaction = nullptr);
    void* bind(const Access_handle& other);
    // Drops the binding: a job tag's pin is released on the thread that bound it; an edit
    // binding pushes the flush. Harmless when unbound.
    void release();
    // Only the flush part of release; the binding stays.
    void release_flush();

    void* object() const { return record_ ? record_->data : nullptr; }
    Element_base* element() const { return static_cast<Element_base*>(object()); }
    Db_tag tag() const { return tag_; }
    Db_record* record() const { return record_; }
    bool is_edit() const { return is_edit_; }
    Transaction* transaction() const { return transaction_; }

private:
    Db_tag tag_ = 0;
    Db_record* record_ = nullptr;
    Thread_context* context_ = nullptr;
    bool is_edit_ = false;
    Transaction* transaction_ = nullptr;
};

// How a heap object enters the database and leaves it. The handle starts owning an element
// that has no tag; store() hands it to the database (from then on the handle reaches it through
// its record). At the handle's end an element that was never stored is deleted; a stored one
// stays in the database under its tag, `on_release` (if given) is called with it, and the
// binding is released.
class Element_dbhandle {
public:
    using Release_fn = void (*)(Element_base* element);

    // Takes ownership of `element` (may be null).
    explicit Element_dbhandle(Element_base* element, Release_fn on_release = nullptr);
    // Binds an existing tag (tag 0 gives an empty handle).
    Element_dbhandle(Db_tag tag, uint32_t class_id, bool is_edit, Release_fn on_release = nullptr);
    Element_dbhandle(const Element_dbhandle&) = delete;
    Element_dbhandle& operator=(const Element_dbhandle&) = delete;
    ~Element_dbhandle();

    // The tag, storing the element first (without a name) if it has none yet. 0 for no element.
    Db_tag store();
    Element_base* get() const;
    Db_tag tag() const { return binding_.tag(); }
    bool owned_by_database() const { return owned_by_database_; }

private:
    Element_base* element_ = nullptr;   // only while not owned by the database
    Access_handle binding_;
    bool owned_by_database_ = false;
    Release_fn on_release_ = nullptr;
};

}  // namespace QV::DB
