"""An application of PyGObject that knows nothing of any monitor; GLib and GTK come to it by dlopen.

Argument: "glib" (a plain GLib.MainLoop), "gtk" (Gtk.main with a window), "application" (Gtk.Application) or "late" (a
plain GLib.MainLoop at first; the command gtk loads GTK and opens a window). Commands
come as lines on standard input, are obeyed in a callback of the loop and are answered with "done COMMAND":
block SECONDS, turn SECONDS (a nested loop), dialog SECONDS (a modal dialog), event SECONDS (posts an event to the
window, whose handler blocks so long), exit. With a second argument "own-handler" the application handles its events
itself, hands them on to GTK, and says "own handler" on standard error when the posted one comes.
"""
import sys
import time

import gi

kind = sys.argv[1]
from gi.repository import GLib

window = None
Gdk = Gtk = None


def load_gtk():
    global Gdk, Gtk
    gi.require_version("Gtk", "3.0")
    from gi.repository import Gdk, Gtk


def open_window():
    global window
    load_gtk()
    window = Gtk.Window()
    window.show_all()


def handle_event(event, *_data):
    if event.type == Gdk.EventType.DELETE:
        print("own handler", file=sys.stderr, flush=True)
    Gtk.main_do_event(event)


def post_event(seconds):
    def close(_window, _event):
        time.sleep(seconds)
        return True

    window.connect("delete-event", close)
    event = Gdk.Event.new(Gdk.EventType.DELETE)
    event.any.window = window.get_window()
    event.put()


def turn(seconds):
    loop = GLib.MainLoop()
    GLib.timeout_add(int(seconds * 1000), loop.quit)
    loop.run()


def show_dialog(seconds):
    dialog = Gtk.MessageDialog(transient_for=window, modal=True, buttons=Gtk.ButtonsType.OK, text="Really?")
    GLib.timeout_add(int(seconds * 1000), lambda: dialog.response(Gtk.ResponseType.OK) and False)
    dialog.run()
    dialog.destroy()


def obey(channel, _condition, leave):
    words = channel.readline().split()
    if not words or words[0] == "exit":
        leave()
        return False
    if words[0] == "gtk":
        open_window()
    else:
        {"block": time.sleep, "turn": turn, "dialog": show_dialog, "event": post_event}[words[0]](float(words[1]))
    print("done", *words, flush=True)
    return True


def listen(leave):
    channel = GLib.IOChannel.unix_new(0)
    GLib.io_add_watch(channel, GLib.PRIORITY_DEFAULT, GLib.IOCondition.IN | GLib.IOCondition.HUP, obey, leave)


if kind in ("glib", "late"):
    main_loop = GLib.MainLoop()
    listen(main_loop.quit)
    main_loop.run()
elif kind == "gtk":
    open_window()
    if sys.argv[2:] == ["own-handler"]:
        Gdk.Event.handler_set(handle_event, None)
    listen(Gtk.main_quit)
    Gtk.main()
else:
    load_gtk()
    application = Gtk.Application()

    def activate(_application):
        global window
        window = Gtk.ApplicationWindow(application=application)
        window.show_all()
        listen(application.quit)

    application.connect("activate", activate)
    application.run()
