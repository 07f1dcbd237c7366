/* An application whose loop is GLib's and that knows nothing of any monitor. Its commands come as lines on
 * standard input, are obeyed in the loop's callback, and are answered with "done COMMAND":
 *   block SECONDS    keep the main thread from answering
 *   turn SECONDS     turn a loop within the callback
 *   dialog SECONDS   the same in a modal dialog (GTK 3, loaded when first needed)
 *   exit */
#include <dlfcn.h>
#include <glib.h>
#include <stdio.h>
#include <string.h>

#include "tests/end_to_end/blocked_work.h"

static gboolean quitLoop(gpointer loop) {
  g_main_loop_quit(loop);
  return G_SOURCE_REMOVE;
}

static void turn(double seconds) {
  GMainLoop* const loop = g_main_loop_new(NULL, FALSE);
  g_timeout_add((guint)(seconds * 1000), quitLoop, loop);
  g_main_loop_run(loop);
  g_main_loop_unref(loop);
}

/* GTK 3 without its headers. */
static void (*gtk_dialog_response)(void* dialog, int response);

static gboolean answerDialog(gpointer dialog) {
  gtk_dialog_response(dialog, 0);
  return G_SOURCE_REMOVE;
}

static gboolean showDialog(double seconds) {
  void* const gtk = dlopen("libgtk-3.so.0", RTLD_NOW | RTLD_LOCAL);
  if (gtk == NULL) return FALSE;
  gboolean (*const gtk_init_check)(int*, char***) = (gboolean(*)(int*, char***))dlsym(gtk, "gtk_init_check");
  void* (*const gtk_dialog_new)(void) = (void* (*)(void))dlsym(gtk, "gtk_dialog_new");
  int (*const gtk_dialog_run)(void*) = (int (*)(void*))dlsym(gtk, "gtk_dialog_run");
  gtk_dialog_response = (void (*)(void*, int))dlsym(gtk, "gtk_dialog_response");
  if (!gtk_init_check(NULL, NULL)) return FALSE;
  void* const dialog = gtk_dialog_new();
  g_timeout_add((guint)(seconds * 1000), answerDialog, dialog);
  gtk_dialog_run(dialog);
  return TRUE;
}

static gboolean obey(GIOChannel* input, GIOCondition condition, gpointer loop) {
  (void)condition;
  char* line = NULL;
  if (g_io_channel_read_line(input, &line, NULL, NULL, NULL) != G_IO_STATUS_NORMAL) {
    g_main_loop_quit(loop);
    return G_SOURCE_REMOVE;
  }
  g_strchomp(line);
  double seconds = 0;
  gboolean known = TRUE;
  if (strcmp(line, "exit") == 0)
    g_main_loop_quit(loop);
  else if (sscanf(line, "block %lf", &seconds) == 1)
    importAttachments(seconds);
  else if (sscanf(line, "turn %lf", &seconds) == 1)
    turn(seconds);
  else if (sscanf(line, "dialog %lf", &seconds) == 1)
    known = showDialog(seconds);
  else
    known = FALSE;
  printf("%s %s\n", known ? "done" : "cannot", line);
  fflush(stdout);
  g_free(line);
  return G_SOURCE_CONTINUE;
}

int main(void) {
  GMainLoop* const loop = g_main_loop_new(NULL, FALSE);
  GIOChannel* const input = g_io_channel_unix_new(0);
  g_io_channel_set_encoding(input, NULL, NULL);
  g_io_add_watch(input, G_IO_IN | G_IO_HUP, obey, loop);
  g_main_loop_run(loop);
  return 0;
}
