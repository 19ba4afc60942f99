#include "client/glib/GErrorConversion.h"

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
