#include "client/glib/GErrorConversion.h"
#include "client/glib/QxfileRecordsPrivate.h"

namespace {

// What a GError of the domain keeps besides its code and message.
struct QxfileErrorPrivate {
  char* recovery_suggestion;
  char* service_domain;
  char* path;
};

void qxfile_error_private_init(QxfileErrorPrivate* priv) {
  *priv = {};
}

void qxfile_error_private_copy(const QxfileErrorPrivate* from, QxfileErrorPrivate* to) {
  to->recovery_suggestion = g_strdup(from->recovery_suggestion);
  to->service_domain = g_strdup(from->service_domain);
  to->path = g_strdup(from->path);
}

void qxfile_error_private_clear(QxfileErrorPrivate* priv) {
  g_free(priv->recovery_suggestion);
  g_free(priv->service_domain);
  g_free(priv->path);
}

GQuark errorInfoQuark() {
  return g_quark_from_static_string("qxfile-error-info");
}

const char* textOrNull(const std::optional<std::string>& text) {
  return text ? text->c_str() : nullptr;
}

}  // namespace

extern "C" {

G_DEFINE_EXTENDED_ERROR(QxfileError, qxfile_error)

const char* qxfile_error_get_recovery_suggestion(const GError* error) {
  auto* priv = qxfile_error_get_private(error);
  return priv ? priv->recovery_suggestion : nullptr;
}

const char* qxfile_error_get_service_domain(const GError* error) {
  auto* priv = qxfile_error_get_private(error);
  return priv ? priv->service_domain : nullptr;
}

const char* qxfile_error_get_path(const GError* error) {
  auto* priv = qxfile_error_get_private(error);
  return priv ? priv->path : nullptr;
}

G_DEFINE_BOXED_TYPE(QxfileErrorInfo, qxfile_error_info, qxfile_error_info_copy,
                    qxfile_error_info_free)

QxfileErrorInfo* qxfile_error_info_from_result(GAsyncResult* result) {
  g_return_val_if_fail(G_IS_ASYNC_RESULT(result), nullptr);
  auto* info =
      static_cast<const QxfileErrorInfo*>(g_object_get_qdata(G_OBJECT(result), errorInfoQuark()));
  return info ? qxfile_error_info_copy(info) : nullptr;
}
QxfileErrorInfo* qxfile_error_info_copy(const QxfileErrorInfo* info) {
  return new QxfileErrorInfo(*info);
}
void qxfile_error_info_free(QxfileErrorInfo* info) {
  delete info;
}
gint qxfile_error_info_get_code(const QxfileErrorInfo* info) {
  return static_cast<gint>(info->value.code);
}
const char* qxfile_error_info_get_service_domain(const QxfileErrorInfo* info) {
  return info->value.domain.c_str();
}
const char* qxfile_error_info_get_description(const QxfileErrorInfo* info) {
  return info->value.description.c_str();
}
const char* qxfile_error_info_get_recovery_suggestion(const QxfileErrorInfo* info) {
  return textOrNull(info->value.recoverySuggestion);
}
const char* qxfile_error_info_get_path(const QxfileErrorInfo* info) {
  return info->value.path ? info->value.path->c_str() : nullptr;
}

}  // extern "C"

GError* GErrorConversion::make(const qxfile::Error& error) {
  GError* made =
      g_error_new_literal(QXFILE_ERROR, static_cast<gint>(error.code), error.description.c_str());
  auto* priv = qxfile_error_get_private(made);
  priv->recovery_suggestion =
      error.recoverySuggestion ? g_strdup(error.recoverySuggestion->c_str()) : nullptr;
  priv->service_domain = g_strdup(error.domain.c_str());
  priv->path = error.path ? g_strdup(error.path->c_str()) : nullptr;
  return made;
}

void GErrorConversion::keepOn(GTask* task, const qxfile::Error& error) {
  g_object_set_qdata_full(G_OBJECT(task), errorInfoQuark(), new QxfileErrorInfo{error},
                          reinterpret_cast<GDestroyNotify>(qxfile_error_info_free));
}
