#include <memory>
#include <mutex>

#include "client/glib/GErrorConversion.h"
#include "client/glib/QxfileRecordsPrivate.h"
#include "qxfile-glib/qxfile-client.h"
#include "qxfile/Client.h"

struct _QxfileClient {
  GObject parent_instance;
  qxfile::Client* client;
};

extern "C" {
G_DEFINE_FINAL_TYPE(QxfileClient, qxfile_client, G_TYPE_OBJECT)
}

namespace {

void qxfile_client_finalize(GObject* object) {
  delete QXFILE_CLIENT(object)->client;
  G_OBJECT_CLASS(qxfile_client_parent_class)->finalize(object);
}

std::vector<std::filesystem::path> pathsOf(const char* const* paths) {
  std::vector<std::filesystem::path> items;
  for (; paths && *paths; ++paths) items.emplace_back(*paths);
  return items;
}

// One asynchronous call: its task, and the cancellable's handler that cancels
// its request. The completion may run before the request has been sent in
// full (when the service cannot be reached), or on a library thread at any
// time after: the mutex orders it after the handler is connected.
class Call {
 public:
  Call(GTask* task) : task_(task) {}
  ~Call() { g_object_unref(task_); }

  GTask* task() const { return task_; }

  // Connects the task's cancellable to `request`, unless the call ended already.
  void watch(const qxfile::Request& request) {
    std::lock_guard lock(mutex_);
    GCancellable* cancellable = g_task_get_cancellable(task_);
    if (finished_ || !cancellable) return;
    handler_ = g_cancellable_connect(
        cancellable, G_CALLBACK(+[](GCancellable*, gpointer data) {
          static_cast<qxfile::Request*>(data)->cancel();
        }),
        new qxfile::Request(request),
        +[](gpointer data) { delete static_cast<qxfile::Request*>(data); });
  }

  // Ends the watch; the caller then returns the task's result.
  void finish() {
    std::lock_guard lock(mutex_);
    finished_ = true;
    if (handler_) g_cancellable_disconnect(g_task_get_cancellable(task_), handler_);
    handler_ = 0;
  }

 private:
  std::recursive_mutex mutex_;
  GTask* task_;
  gulong handler_ = 0;
  bool finished_ = false;
};

// Queues `function` on `context`. (g_main_context_invoke_full would run it at
// once on the calling thread, the client's reply thread, whenever nothing
// iterates the context at that moment.)
void queueOn(GMainContext* context, GSourceFunc function, gpointer data, GDestroyNotify destroy) {
  GSource* source = g_idle_source_new();
  g_source_set_priority(source, G_PRIORITY_DEFAULT);
  g_source_set_callback(source, function, data, destroy);
  g_source_attach(source, context);
  g_source_unref(source);
}

void returnError(GTask* task, const qxfile::Error& error) {
  GErrorConversion::keepOn(task, error);
  g_task_return_error(task, GErrorConversion::make(error));
}

GPtrArray* sizeUpdates(const std::vector<qxfile::SizeUpdate>& updates) {
  GPtrArray* array =
      g_ptr_array_new_with_free_func(reinterpret_cast<GDestroyNotify>(qxfile_size_update_free));
  for (const auto& update : updates) g_ptr_array_add(array, new QxfileSizeUpdate{update});
  return array;
}

// The progress callback of a size calculation, called on the caller's context.
// Reports still queued there when the call's cancellable is cancelled are
// dropped: once the caller has cancelled, it hears no more progress.
struct Progress {
  QxfileSizeProgress callback;
  gpointer data;
  GDestroyNotify notify;
  GMainContext* context;
  GCancellable* cancellable;

  Progress(QxfileSizeProgress callback, gpointer data, GDestroyNotify notify,
           GCancellable* cancellable)
      : callback(callback),
        data(data),
        notify(notify),
        context(g_main_context_ref_thread_default()),
        cancellable(cancellable ? G_CANCELLABLE(g_object_ref(cancellable)) : nullptr) {}
  Progress(const Progress&) = delete;
  Progress& operator=(const Progress&) = delete;

  // The data is freed on the caller's context, as every call of the callback ran.
  ~Progress() {
    if (notify) {
      struct Release {
        GDestroyNotify notify;
        gpointer data;
      };
      queueOn(
          context,
          +[](gpointer release) -> gboolean {
            auto* r = static_cast<Release*>(release);
            r->notify(r->data);
            return G_SOURCE_REMOVE;
          },
          new Release{notify, data},
          +[](gpointer release) { delete static_cast<Release*>(release); });
    }
    g_main_context_unref(context);
    if (cancellable) g_object_unref(cancellable);
  }

  void deliver(const std::vector<qxfile::SizeUpdate>& updates,
               const std::shared_ptr<Progress>& self) {
    struct Report {
      std::shared_ptr<Progress> progress;
      GPtrArray* updates;
    };
    queueOn(
        context,
        +[](gpointer data) -> gboolean {
          auto* report = static_cast<Report*>(data);
          const auto& progress = *report->progress;
          if (!g_cancellable_is_cancelled(progress.cancellable))
            progress.callback(report->updates, progress.data);
          return G_SOURCE_REMOVE;
        },
        new Report{self, sizeUpdates(updates)},
        +[](gpointer data) {
          auto* report = static_cast<Report*>(data);
          g_ptr_array_unref(report->updates);
          delete report;
        });
  }
};

}  // namespace

extern "C" {

static void qxfile_client_class_init(QxfileClientClass* klass) {
  G_OBJECT_CLASS(klass)->finalize = qxfile_client_finalize;
}

static void qxfile_client_init(QxfileClient* self) {
  self->client = new qxfile::Client();
}

QxfileClient* qxfile_client_new(void) {
  return QXFILE_CLIENT(g_object_new(QXFILE_TYPE_CLIENT, nullptr));
}

gboolean qxfile_client_connect(QxfileClient* self, GError** error) {
  g_return_val_if_fail(QXFILE_IS_CLIENT(self), FALSE);
  if (auto failure = self->client->connect()) {
    g_propagate_error(error, GErrorConversion::make(*failure));
    return FALSE;
  }
  return TRUE;
}

void qxfile_client_get_sizes_async(QxfileClient* self, const char* const* paths,
                                   QxfileSizeProgress progress, gpointer progress_data,
                                   GDestroyNotify progress_notify, GCancellable* cancellable,
                                   GAsyncReadyCallback callback, gpointer user_data) {
  g_return_if_fail(QXFILE_IS_CLIENT(self));
  auto call = std::make_shared<Call>(g_task_new(self, cancellable, callback, user_data));
  g_task_set_source_tag(call->task(), reinterpret_cast<gpointer>(qxfile_client_get_sizes_async));
  std::shared_ptr<Progress> reports;
  if (progress) {
    reports = std::make_shared<Progress>(progress, progress_data, progress_notify, cancellable);
  } else if (progress_notify) {
    progress_notify(progress_data);
  }
  qxfile::Client::SizeOptions options;
  options.onUpdate = [reports](const std::vector<qxfile::SizeUpdate>& updates) {
    if (reports) reports->deliver(updates, reports);
    return true;
  };
  auto request = self->client->getSizes(
      pathsOf(paths), options,
      [call](std::vector<qxfile::SizeUpdate> last, std::optional<qxfile::Error> error) {
        call->finish();
        if (error) return returnError(call->task(), *error);
        g_task_return_pointer(call->task(), sizeUpdates(last),
                              reinterpret_cast<GDestroyNotify>(g_ptr_array_unref));
      });
  call->watch(request);
}

GPtrArray* qxfile_client_get_sizes_finish(QxfileClient* self, GAsyncResult* result,
                                          GError** error) {
  g_return_val_if_fail(g_task_is_valid(result, self), nullptr);
  return static_cast<GPtrArray*>(g_task_propagate_pointer(G_TASK(result), error));
}

void qxfile_client_get_acl_async(QxfileClient* self, const char* path, GCancellable* cancellable,
                                 GAsyncReadyCallback callback, gpointer user_data) {
  g_return_if_fail(QXFILE_IS_CLIENT(self));
  auto call = std::make_shared<Call>(g_task_new(self, cancellable, callback, user_data));
  self->client->getAcl(
      path, [call](qxfile::AclListing listing, std::optional<qxfile::Error> error) {
        call->finish();
        if (error) return returnError(call->task(), *error);
        g_task_return_pointer(call->task(), new QxfileAclListing{std::move(listing)},
                              reinterpret_cast<GDestroyNotify>(qxfile_acl_listing_free));
      });
}

QxfileAclListing* qxfile_client_get_acl_finish(QxfileClient* self, GAsyncResult* result,
                                               GError** error) {
  g_return_val_if_fail(g_task_is_valid(result, self), nullptr);
  return static_cast<QxfileAclListing*>(g_task_propagate_pointer(G_TASK(result), error));
}

void qxfile_client_set_acl_async(QxfileClient* self, const char* path,
                                 const QxfileAclListing* listing, GCancellable* cancellable,
                                 GAsyncReadyCallback callback, gpointer user_data) {
  g_return_if_fail(QXFILE_IS_CLIENT(self));
  auto call = std::make_shared<Call>(g_task_new(self, cancellable, callback, user_data));
  self->client->setAcl(path, listing->value, [call](std::optional<qxfile::Error> error) {
    call->finish();
    if (error) return returnError(call->task(), *error);
    g_task_return_boolean(call->task(), TRUE);
  });
}

gboolean qxfile_client_set_acl_finish(QxfileClient* self, GAsyncResult* result, GError** error) {
  g_return_val_if_fail(g_task_is_valid(result, self), FALSE);
  return g_task_propagate_boolean(G_TASK(result), error);
}

void qxfile_client_list_contents_async(QxfileClient* self, const char* path,
                                       const guint64* index_path, gsize index_length,
                                       GCancellable* cancellable, GAsyncReadyCallback callback,
                                       gpointer user_data) {
  g_return_if_fail(QXFILE_IS_CLIENT(self));
  auto call = std::make_shared<Call>(g_task_new(self, cancellable, callback, user_data));
  std::vector<uint64_t> indexes(index_path, index_path + (index_path ? index_length : 0));
  self->client->listContents(
      path, indexes,
      [call](std::vector<std::vector<qxfile::FileRef>> levels, std::optional<qxfile::Error> error) {
        call->finish();
        if (error) return returnError(call->task(), *error);
        GPtrArray* items =
            g_ptr_array_new_with_free_func(reinterpret_cast<GDestroyNotify>(qxfile_file_ref_free));
        for (guint level = 0; level < levels.size(); ++level) {
          for (auto& item : levels[level]) g_ptr_array_add(items, new QxfileFileRef{item, level});
        }
        g_task_return_pointer(call->task(), items,
                              reinterpret_cast<GDestroyNotify>(g_ptr_array_unref));
      });
}

GPtrArray* qxfile_client_list_contents_finish(QxfileClient* self, GAsyncResult* result,
                                              GError** error) {
  g_return_val_if_fail(g_task_is_valid(result, self), nullptr);
  return static_cast<GPtrArray*>(g_task_propagate_pointer(G_TASK(result), error));
}

void qxfile_client_rename_async(QxfileClient* self, const char* const* paths,
                                const char* const* names, GCancellable* cancellable,
                                GAsyncReadyCallback callback, gpointer user_data) {
  g_return_if_fail(QXFILE_IS_CLIENT(self));
  auto call = std::make_shared<Call>(g_task_new(self, cancellable, callback, user_data));
  // A stopped or failed batch finishes with the items renamed before it
  // ended, rather than with G_IO_ERROR_CANCELLED or the error alone.
  g_task_set_check_cancellable(call->task(), FALSE);
  std::vector<std::string> newNames;
  for (; names && *names; ++names) newNames.emplace_back(*names);
  auto request = self->client->rename(
      pathsOf(paths), newNames, {},
      [call](qxfile::RenameResult result, std::optional<qxfile::Error> error) {
        call->finish();
        GError* failure = nullptr;
        if (error) {
          GErrorConversion::keepOn(call->task(), *error);
          failure = GErrorConversion::make(*error);
        }
        g_task_return_pointer(call->task(), new QxfileRenameResult{std::move(result), failure},
                              reinterpret_cast<GDestroyNotify>(qxfile_rename_result_free));
      });
  call->watch(request);
}

QxfileRenameResult* qxfile_client_rename_finish(QxfileClient* self, GAsyncResult* result) {
  g_return_val_if_fail(g_task_is_valid(result, self), nullptr);
  return static_cast<QxfileRenameResult*>(g_task_propagate_pointer(G_TASK(result), nullptr));
}

}  // extern "C"
