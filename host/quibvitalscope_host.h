/* How a host application answers the monitor's questions and tells it what happens, in plain C.
 *
 * The monitor finds a host's classes and selectors by name at run time; these functions define them. A host
 * that prefers to define them itself (vitalscope/platform/runtime.h) needs none of this. Link
 * libquibvitalscope_host.
 *
 * Unless said otherwise a function may be called on any thread but not in a signal handler, copies its texts
 * (UTF-8) and may be called again to change the answer. Answers are asked for each time they matter, on
 * whatever thread needs them: a callback must be quick and must not throw. Its context must stay valid for
 * the life of the process. */
#ifndef QUIBVITALSCOPE_HOST_H
#define QUIBVITALSCOPE_HOST_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The signed-in user's e-mail; NULL when nobody is signed in. Only users of the organisation's own mail
 * domain are monitored. As long as neither function was called, the monitor never starts. */
void qbv_host_set_email(const char* email);
/* The callback's text is copied before the callback is asked again on the same thread. */
void qbv_host_answer_email(const char* (*answer)(void* context), void* context);

/* Whether this build keeps logs (non-zero): then all monitors run, otherwise only the hang monitor does. Not
 * said: no. */
void qbv_host_set_keeps_logs(int keeps_logs);
void qbv_host_answer_keeps_logs(int (*answer)(void* context), void* context);

/* The call status; 2 means that the user is in a meeting. Not said: in no meeting. */
void qbv_host_set_call_status(int64_t status);
void qbv_host_answer_call_status(int64_t (*answer)(void* context), void* context);

/* Uploads. `upload` is asked to upload a report folder (user_upload is non-zero when the user wished it) and
 * returns a request id, or NULL or "" when it makes no request. `feedback` gets, as JSON text, what the host
 * posted as "OnUploadFeedbackResult" for one of these ids; it may be NULL. */
void qbv_host_set_upload_helper(const char* (*upload)(void* context, int user_upload),
                                void (*feedback)(void* context, const char* json), void* context);
/* The absolute path of the folder to upload: for `upload`, to ask while it runs. NULL when no monitor is
 * loaded. The text is valid until the same thread asks again. */
const char* qbv_host_upload_folder(void);

/* Facts of the application: "CFBundleIdentifier", "CFBundleVersion", "CFBundleShortVersionString",
 * "CFBundleExecutable", "CFBundleName". Reports are made with the facts known when the user signs in. */
void qbv_host_set_bundle_value(const char* key, const char* value);

/* Posts a notification on the default centre; its observers run on the calling thread before this returns.
 * user_info: a JSON object, or NULL for none. 0 on success, -1 when the name is NULL or the JSON is not an
 * object. */
int qbv_host_post(const char* name, const char* user_info);

#define QBV_HOST_SIGNED_IN "Noti_Login_FB_Login_Finished"
#define QBV_HOST_SIGNED_OUT "Noti_LogOut"
#define QBV_HOST_WILL_TERMINATE "Noti_KXProcessWillTerminate"
#define QBV_HOST_DID_BECOME_ACTIVE "NSApplicationDidBecomeActiveNotification"
#define QBV_HOST_DID_RESIGN_ACTIVE "NSApplicationDidResignActiveNotification"

/* The main loop. A host polls the descriptor for reading along with its own and calls drain on the main
 * thread when it is readable. The descriptor is the monitor's: never read from it, never close it. drain runs
 * what is waiting and returns non-zero when anything was. */
int qbv_host_main_queue_descriptor(void);
int qbv_host_drain_main_queue(void);

/* The run-loop monitor: writes the main thread's stack to the system log when a pass of the main loop or an
 * event lasts more than two seconds, or the process uses more than 70 percent of a core. It runs from this
 * call on, as long as the process, whether a user is signed in or not; on another thread than the main one it
 * starts when the main loop drains next. Further calls change nothing. 0; -1 when libquibvitalscope is not
 * loaded. */
int qbv_host_watch_run_loop(void);

/* What the run-loop monitor cannot see of a loop that is neither GLib's nor ours. All optional; the first
 * three on the main thread.
 * Around each wait of the loop, always both: from then on whole passes are timed, otherwise only what drain
 * runs. */
void qbv_host_loop_will_wait(void);
void qbv_host_loop_did_wake(void);
/* Dispatches an event: handle(context) is called before this returns, and timed by itself. It may dispatch
 * further events, and must not throw. */
void qbv_host_send_event(void (*handle)(void* context), void* context);
/* The same later, from the main loop, in order with the other posts. Any thread. */
void qbv_host_post_event(void (*handle)(void* context), void* context);

/* Classes and messages of the host's own, which the method-time profiler can time. Objects, classes and
 * selectors are pointers; 0 stands for nil and for what could not be made. A message is sent by
 * objc_msgSend, cast to the method's type with the receiver and the selector in front:
 *
 *   typedef int (*Add)(void* self, const void* selector, int value);
 *   Add add = (Add)(void (*)(void))objc_msgSend;
 *   int sum = add(object, qbv_host_selector("add:"), 5);
 *
 * On x86-64 a method that returns a structure of more than 16 bytes is sent by objc_msgSend_stret. nil
 * answers 0; an object without such a method ends the process. */
void* qbv_host_define_class(const char* name, const char* superclass); /* NULL: below "NSObject" */
void* qbv_host_class(const char* name);
const void* qbv_host_selector(const char* name);
/* Adds a method to a class's instances, or to the class itself, or replaces its own of that name. types: the
 * usual encoding, result first ("i@:i"); it serves those who look before they send. 0; -1 when something is
 * NULL. */
int qbv_host_add_method(void* cls, const char* selector, void (*method)(void), const char* types);
int qbv_host_add_class_method(void* cls, const char* selector, void (*method)(void), const char* types);
/* A new object without fields that is never freed. */
void* qbv_host_create_object(void* cls);
#ifndef __cplusplus
void* objc_msgSend(void* receiver, const void* selector, ...);
#if defined(__x86_64__)
void objc_msgSend_stret(void* result, void* receiver, const void* selector, ...);
#endif
#endif

#ifdef __cplusplus
}
#endif

#endif
