# Run by gdb on an attached process: prints one line per thread, "frames THREAD pc pc ...", without the frames
# that are not on the stack: inlined calls, and tail calls that it infers from debug information.
import gdb

for command in ("set pagination off", "set backtrace past-main on", "set backtrace limit 600"):
    gdb.execute(command)
for thread in gdb.selected_inferior().threads():
    thread.switch()
    frame = gdb.newest_frame()
    addresses = []
    while frame is not None:
        if frame.type() not in (gdb.INLINE_FRAME, gdb.TAILCALL_FRAME):
            addresses.append("%x" % frame.pc())
        frame = frame.older()
    print("frames %d %s" % (thread.ptid[1], " ".join(addresses)))
