#include "database/transaction.h"

#include <algorithm>
#include <limits>
#include <utility>

#include "base/lib/mem/i_mem_allocatable.h"
#include "database/transaction_names.h"
#include "runtime/modules.h"
#include "runtime/msg.h"

namespace QV::DB {

namespace {

Transaction_job_support g_job_support{};
void (*g_poll_hook)(int) = nullptr;

// Message numbers of module DBN (error level).
constexpr int32_t DBN_ERROR_NO_JOB_SUPPORT = 1;

void report_no_job_support(const char* what)
{
    Module_scope scope(MOD_DBN);
    msg_error_n(DBN_ERROR_NO_JOB_SUPPORT, "transaction: no job support for %s", what);
}

uint32_t recorded_size(const Element_base* element)
{
    uint64_t size = element->get_size();
    return static_cast<uint32_t>(std::min<uint64_t>(size, std::numeric_limits<uint32_t>::max()));
}

}  // namespace

void transaction_set_job_support(const Transaction_job_support& support) { g_job_support = support; }

const Transaction_job_support& transaction_job_support() { return g_job_support; }

void transaction_set_poll_hook(void (*poll)(int value)) { g_poll_hook = poll; }

// ---- The singleton ---------------------------------------------------------------------------

Transaction::Transaction()
{
    // Every element enters through here, so the database learns how to delete type-63 data
    // before it holds any.
    element_install_db_handler();
    qv_db_set_tag_name_hook(tag_names_lookup);
}

Transaction::~Transaction() = default;

Transaction* get_transaction()
{
    static Transaction* transaction = new Transaction();
    return transaction;
}

void Transaction::pin() {}
void Transaction::unpin() {}
bool Transaction::is_open() const { return false; }

void Transaction::wait()
{
    if (g_poll_hook)
        g_poll_hook(1);
}

bool Transaction::is_valid() const { return true; }

Db_tag Transaction::store_dummy(Db_tag* tag, bool as_job)
{
    *tag = 0;
    if (as_job) {
        if (!g_job_support.make_dummy_job) {
            report_no_job_support("store_dummy");
            return 0;
        }
        return store_job(tag, g_job_support.make_dummy_job(), nullptr);
    }
    if (!g_job_support.make_dummy_tag) {
        report_no_job_support("store_dummy");
        return 0;
    }
    return store(tag, g_job_support.make_dummy_tag(), nullptr);
}

Db_tag Transaction::store_job_over(Db_tag /*tag*/, SCHED::Job* job, const char* name)
{
    // The job gets a fresh job tag; the one passed in is left as it is.
    Db_tag job_tag = 0;
    store_job(&job_tag, job, name);
    if (job_tag && g_job_support.announce)
        g_job_support.announce(job_tag, DB_TYPE_SERIALIZABLE);
    return job_tag;
}

Db_tag Transaction::store_job(Db_tag* tag, SCHED::Job* job, const char* name)
{
    *tag = 0;
    if (!g_job_support.store_job) {
        report_no_job_support("store_job");
        return 0;
    }
    *tag = g_job_support.store_job(this, job, name);
    return *tag;
}

Db_tag Transaction::store(Db_tag* tag, Element_base* element, const char* name)
{
    Module_scope scope(MOD_DBN);
    Db_tag created = 0;
    // Type 63 is untracked, so the create leaves no pin; the unpin keeps the pair balanced
    // should that ever change.
    qv_db_create(&created, DB_TYPE_SERIALIZABLE, recorded_size(element), element);
    qv_db_unpin(created);
    created_tags_append(created);
    tag_names_register(created, name);
    *tag = created;
    return created;
}

void Transaction::store_over(Db_tag tag, Element_base* element, const char* name)
{
    Module_scope scope(MOD_DBN);
    Db_record* record = qv_db_pin(tag);
    void* old = record->data;
    if (old && old != element) {
        if (record->type == DB_TYPE_SERIALIZABLE)
            delete static_cast<Element_base*>(old);
        else
            QV_FREE(old);
    }
    qv_db_data_store(record, element);
    record->type = DB_TYPE_SERIALIZABLE;
    record->module = MOD_DB;
    record->flags = 1;
    record->size = std::max<uint32_t>(recorded_size(element), 1);
    qv_db_state_store(record, DB_STATE_NORMAL);
    if (qv_db_tracked(tag, record->type))
        qv_db_unpin(tag);
    tag_names_register(tag, name);
}

void Transaction::flush() {}

void Transaction::remove(Db_tag tag)
{
    qv_db_delete(tag);
    tag_names_drop(tag);
    // A tag that stays on the created list would be removed again at the thread's end, and
    // by then its slot may name another element.
    if (Created_tags* list = created_tags()) {
        for (uint32_t i = list->count; i > 0; --i) {
            if (list->tags[i - 1] == tag) {
                std::copy(list->tags + i, list->tags + list->count, list->tags + i - 1);
                --list->count;
                break;
            }
        }
    }
}

void Transaction::schedule(Db_tag tag)
{
    if (qv_db_is_job(tag) && g_job_support.schedule)
        g_job_support.schedule(&tag, 1);
}

const char* Transaction::tag_to_name(Db_tag tag) { return tag_names_tag_to_name(tag); }

Db_tag Transaction::name_to_tag(Db_tag* tag, const char* name)
{
    *tag = tag_names_name_to_tag(name);
    return *tag;
}

uint32_t Transaction::get_class_id(Db_tag tag)
{
    Db_record* record = qv_db_pin(tag);
    uint32_t id = 0;
    if (record->type == DB_TYPE_SERIALIZABLE && record->data)
        id = static_cast<const Element_base*>(record->data)->get_class_id();
    if (qv_db_tracked(tag, record->type))
        qv_db_unpin(tag);
    return id;
}

void Transaction::get_id(uint32_t* id) { *id = 0; }

int Transaction::get_host_count() { return 0; }

void Transaction::get_scope(Transaction_scope* scope, uint32_t, uint32_t value)
{
    scope->value = value;
    scope->reserved[0] = 0;
    scope->reserved[1] = 0;
}

// ---- Created tags ----------------------------------------------------------------------------

namespace {

thread_local Created_tags t_created_tags{};

}  // namespace

Created_tags* created_tags()
{
    if (!thread_context())
        return nullptr;
    if (void* area = mod_context_area(MOD_DBN))
        return static_cast<Created_tags*>(area);
    return &t_created_tags;
}

void created_tags_append(Db_tag tag)
{
    Created_tags* list = created_tags();
    if (!list)
        return;
    if (list->count == list->capacity) {
        Module_scope scope(MOD_DBN);
        uint32_t capacity = list->capacity ? list->capacity * 2 : 16;
        list->tags = static_cast<Db_tag*>(QV_REALLOC(list->tags, capacity * sizeof(Db_tag)));
        list->capacity = capacity;
    }
    list->tags[list->count++] = tag;
}

Db_tag created_tags_take_last()
{
    Created_tags* list = created_tags();
    if (!list || list->count == 0)
        return 0;
    return list->tags[--list->count];
}

void created_tags_remove_all()
{
    Created_tags* list = created_tags();
    if (!list)
        return;
    Transaction* transaction = get_transaction();
    // Transaction::remove takes each tag off the list itself; newest first keeps that O(1).
    while (list->count > 0) {
        uint32_t before = list->count;
        transaction->remove(list->tags[before - 1]);
        if (list->count == before)
            --list->count;
    }
}

void created_tags_free(Created_tags* list)
{
    if (!list)
        return;
    if (list->tags)
        QV_FREE(list->tags);
    list->tags = nullptr;
    list->count = list->capacity = 0;
}

// ---- Access handles --------------------------------------------------------------------------

Access_handle::Access_handle(Db_tag tag, uint32_t class_id, bool is_edit)
{
    bind(tag, class_id, is_edit);
}

Access_handle::Access_handle(Access_handle&& other) noexcept
    : tag_(std::exchange(other.tag_, 0)),
      record_(std::exchange(other.record_, nullptr)),
      context_(std::exchange(other.context_, nullptr)),
      is_edit_(std::exchange(other.is_edit_, false)),
      transaction_(std::exchange(other.transaction_, nullptr))
{
}

Access_handle& Access_handle::operator=(Access_handle&& other) noexcept
{
    if (this != &other) {
        release();
        tag_ = std::exchange(other.tag_, 0);
        record_ = std::exchange(other.record_, nullptr);
        context_ = std::exchange(other.context_, nullptr);
        is_edit_ = std::exchange(other.is_edit_, false);
        transaction_ = std::exchange(other.transaction_, nullptr);
    }
    return *this;
}

void* Access_handle::bind(Db_tag tag, uint32_t /*class_id*/, bool is_edit, Transaction* transaction)
{
    release();
    tag_ = tag;
    is_edit_ = is_edit;
    transaction_ = transaction ? transaction : get_transaction();
    if (tag == 0)
        return nullptr;
    context_ = thread_context();
    record_ = qv_db_access_record(tag);
    return record_->data;
}

void* Access_handle::bind(const Access_handle& other)
{
    // Read everything first: `other` may be this handle.
    Db_tag tag = other.tag_;
    bool is_edit = other.is_edit_;
    Transaction* transaction = other.transaction_;
    return bind(tag, 0, is_edit, transaction);
}

void Access_handle::release()
{
    if (tag_ != 0) {
        // Only a job tag holds a pin here: elements are type 63, which is untracked.
        if (qv_db_is_job(tag_) && record_)
            qv_db_unpin_record(record_, context_);
        if (is_edit_)
            qv_db_flush_tag(tag_);
    }
    tag_ = 0;
    record_ = nullptr;
    context_ = nullptr;
    is_edit_ = false;
}

void Access_handle::release_flush()
{
    if (tag_ != 0 && is_edit_)
        qv_db_flush_tag(tag_);
}

// ---- Element_dbhandle ------------------------------------------------------------------------

Element_dbhandle::Element_dbhandle(Element_base* element, Release_fn on_release)
    : element_(element), on_release_(on_release)
{
}

Element_dbhandle::Element_dbhandle(Db_tag tag, uint32_t class_id, bool is_edit, Release_fn on_release)
    : owned_by_database_(tag != 0), on_release_(on_release)
{
    binding_.bind(tag, class_id, is_edit);
}

Element_dbhandle::~Element_dbhandle()
{
    if (!owned_by_database_) {
        delete element_;
        return;
    }
    if (on_release_)
        if (Element_base* element = binding_.element())
            on_release_(element);
    binding_.release();
}

Db_tag Element_dbhandle::store()
{
    if (binding_.tag() != 0)
        return binding_.tag();
    if (!element_)
        return 0;
    Db_tag tag = 0;
    get_transaction()->store(&tag, element_, nullptr);
    element_ = nullptr;
    owned_by_database_ = true;
    binding_.bind(tag, 0, true);
    return tag;
}

Element_base* Element_dbhandle::get() const
{
    return owned_by_database_ ? binding_.element() : element_;
}

}  // namespace QV::DB
