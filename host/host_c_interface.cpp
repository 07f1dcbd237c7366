#include <optional>
#include <string>

#include "host/quibvitalscope_host.h"
#include "host/quibvitalscope_host.hpp"
#include "vitalscope/platform/platform.h"

namespace {

std::optional<std::string> optionalText(const char* text) {
  return text != nullptr ? std::optional<std::string>(text) : std::nullopt;
}

}  // namespace

#define QBV_HOST_API extern "C" QBV_EXPORT

QBV_HOST_API void qbv_host_set_email(const char* email) {
  qbv::host::answerEmail([text = optionalText(email)] { return text; });
}

QBV_HOST_API void qbv_host_answer_email(const char* (*answer)(void*), void* context) {
  qbv::host::answerEmail([=] { return optionalText(answer(context)); });
}

QBV_HOST_API void qbv_host_set_keeps_logs(int keepsLogs) {
  qbv::host::answerKeepsLogs([=] { return keepsLogs != 0; });
}

QBV_HOST_API void qbv_host_answer_keeps_logs(int (*answer)(void*), void* context) {
  qbv::host::answerKeepsLogs([=] { return answer(context) != 0; });
}

QBV_HOST_API void qbv_host_set_call_status(std::int64_t status) {
  qbv::host::answerCallStatus([=] { return status; });
}

QBV_HOST_API void qbv_host_answer_call_status(std::int64_t (*answer)(void*), void* context) {
  qbv::host::answerCallStatus([=] { return answer(context); });
}

QBV_HOST_API void qbv_host_set_upload_helper(const char* (*upload)(void*, int),
                                             void (*feedback)(void*, const char*), void* context) {
  qbv::host::UploadHelper helper;
  helper.upload = [=](bool userUpload) { return optionalText(upload(context, userUpload)).value_or(""); };
  if (feedback != nullptr)
    helper.feedback = [=](const std::string& json) { feedback(context, json.c_str()); };
  qbv::host::setUploadHelper(std::move(helper));
}

QBV_HOST_API const char* qbv_host_upload_folder() {
  static thread_local std::string lent;
  const auto folder = qbv::host::uploadFolder();
  lent = folder.value_or("");
  return folder ? lent.c_str() : nullptr;
}

QBV_HOST_API void qbv_host_set_bundle_value(const char* key, const char* value) {
  if (key != nullptr && value != nullptr) qbv::host::setBundleValue(key, value);
}

QBV_HOST_API int qbv_host_post(const char* name, const char* userInfo) {
  if (name == nullptr) return -1;
  std::optional<qbv::Value> value = qbv::Value();
  if (userInfo != nullptr) value = qbv::Value::fromJSON(userInfo);
  if (!value || (!value->isNil() && value->dictionary() == nullptr)) return -1;
  qbv::host::post(name, *value);
  return 0;
}

QBV_HOST_API int qbv_host_main_queue_descriptor() {
  return qbv::platform().runLoop.descriptor();
}

QBV_HOST_API int qbv_host_drain_main_queue() {
  return qbv::platform().runLoop.drain() ? 1 : 0;
}

QBV_HOST_API int qbv_host_watch_run_loop() {
  return qbv::host::watchRunLoop() ? 0 : -1;
}

QBV_HOST_API void qbv_host_loop_will_wait() {
  qbv::host::loopWillWait();
}

QBV_HOST_API void qbv_host_loop_did_wake() {
  qbv::host::loopDidWake();
}

QBV_HOST_API void qbv_host_send_event(void (*handle)(void*), void* context) {
  if (handle != nullptr) qbv::platform().runLoop.sendEvent(handle, context);
}

QBV_HOST_API void qbv_host_post_event(void (*handle)(void*), void* context) {
  if (handle != nullptr) qbv::platform().runLoop.postEvent(handle, context);
}

QBV_HOST_API void* qbv_host_define_class(const char* name, const char* superclass) {
  qbv::Runtime& runtime = qbv::platform().runtime;
  if (name == nullptr) return nullptr;
  const qbv::Class above = superclass == nullptr ? nullptr : runtime.NSClassFromString(superclass);
  return superclass != nullptr && above == nullptr ? nullptr : runtime.defineClass(name, above);
}

QBV_HOST_API void* qbv_host_class(const char* name) {
  return qbv::platform().runtime.NSClassFromString(name);
}

QBV_HOST_API const void* qbv_host_selector(const char* name) {
  return name == nullptr ? nullptr : qbv::selectorNamed(name);
}

QBV_HOST_API int qbv_host_add_method(void* cls, const char* selector, void (*method)(), const char* types) {
  if (cls == nullptr || selector == nullptr || method == nullptr) return -1;
  qbv::platform().runtime.addInstanceMethod(static_cast<qbv::Class>(cls), qbv::selectorNamed(selector),
                                            method, types);
  return 0;
}

QBV_HOST_API int qbv_host_add_class_method(void* cls, const char* selector, void (*method)(),
                                           const char* types) {
  if (cls == nullptr || selector == nullptr || method == nullptr) return -1;
  qbv::platform().runtime.addClassMethod(static_cast<qbv::Class>(cls), qbv::selectorNamed(selector), method,
                                         types);
  return 0;
}

QBV_HOST_API void* qbv_host_create_object(void* cls) {
  return qbv::platform().runtime.createInstance(static_cast<qbv::Class>(cls));
}
