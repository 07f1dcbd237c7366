"""A GTK application that works the way busy ones do, on command, and knows nothing of any monitor.

Commands come as lines on standard input, are obeyed in a callback of the loop and are answered with one line,
"done COMMAND …", when they are through; "rest" collects garbage, gives free memory back and answers with nothing left to do.

  hang KIND SECONDS    the main thread blocks: sleep (in a system call), spin (computing), lock (for another thread)
  turn SECONDS         the loop turns
  allocate COUNT SIZE  so many blocks of so many bytes, touched, then freed
  threads COUNT        so many threads that work a little and end
  fork COUNT           so many children that allocate, wait and end, and one program that is run
  window SECONDS       a window with a text and a list, opened, filled and closed
  rest, exit
"""
import ctypes
import gc
import os
import random
import subprocess
import sys
import threading
import time

import gi

gi.require_version("Gtk", "3.0")
from gi.repository import GLib, Gtk

libc = ctypes.CDLL(None, use_errno=True)
libc.malloc.restype = ctypes.c_void_p
libc.malloc.argtypes = [ctypes.c_size_t]
libc.free.argtypes = [ctypes.c_void_p]


def done(*words):
    print("done", *words, flush=True)


def hang(kind, seconds):
    end = time.monotonic() + float(seconds)
    if kind == "sleep":
        time.sleep(float(seconds))
    elif kind == "lock":
        held = threading.Event()
        threading.Timer(float(seconds), held.set).start()
        held.wait()
    else:
        while time.monotonic() < end:
            sum(range(20000))


def allocate(count, size):
    blocks = [libc.malloc(int(size)) for _ in range(int(count))]
    for block in blocks:
        ctypes.memset(block, 1, int(size))
    random.shuffle(blocks)
    for block in blocks:
        libc.free(block)


def work():
    for _ in range(50):
        libc.free(libc.malloc(4096))
        time.sleep(0.001)


def start_threads(count):
    threads = [threading.Thread(target=work) for _ in range(int(count))]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()


def fork(count):
    children = []
    for _ in range(int(count)):
        child = os.fork()
        if child == 0:
            for _ in range(1000):
                libc.free(libc.malloc(10000))
            time.sleep(0.05)
            os._exit(7)
        children.append(child)
    statuses = {os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) for child in children}
    program = subprocess.run(["/bin/echo", "hello"], capture_output=True, check=False)
    if statuses != {7} or program.stdout != b"hello\n" or program.stderr != b"":
        done("fork failed:", statuses, program)
        raise SystemExit("a child did not end as it should")


def window(seconds):
    shown = Gtk.Window(title="Soak")
    rows = Gtk.ListStore(str)
    for row in range(200):
        rows.append([f"row {row}"])
    view = Gtk.TreeView(model=rows)
    view.append_column(Gtk.TreeViewColumn("Rows", Gtk.CellRendererText(), text=0))
    shown.add(view)
    shown.show_all()
    turn(seconds)
    shown.destroy()


def turn(seconds):
    loop = GLib.MainLoop()
    GLib.timeout_add(int(float(seconds) * 1000), loop.quit)
    loop.run()


def rest():
    gc.collect()
    libc.malloc_trim(0)


COMMANDS = {"hang": hang, "turn": turn, "allocate": allocate, "threads": start_threads, "fork": fork,
            "window": window, "rest": rest}


def obey(channel, _condition):
    words = channel.readline().split()
    if not words or words[0] == "exit":
        Gtk.main_quit()
        return False
    COMMANDS[words[0]](*words[1:])
    done(*words)
    return True


input_channel = GLib.IOChannel.unix_new(sys.stdin.fileno())
GLib.io_add_watch(input_channel, GLib.PRIORITY_DEFAULT, GLib.IOCondition.IN | GLib.IOCondition.HUP, obey)
main_window = Gtk.Window(title="Soak host")
main_window.show_all()
done("start")
Gtk.main()
main_window.destroy()
