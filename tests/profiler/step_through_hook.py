# Run by gdb: steps instruction by instruction from before_steps to after_steps and looks at each whether the
# backtrace still leads to the one call in main that is under way. Prints "stepped STEPS hook STEPS broken STEPS".
import gdb

for command in ("set pagination off", "set breakpoint pending on", "set backtrace past-main off"):
    gdb.execute(command)
gdb.execute("break before_steps")
gdb.execute("run", to_string=True)
gdb.execute("finish", to_string=True)
main_stack = gdb.selected_frame().read_register("sp")
end = int(gdb.parse_and_eval("(unsigned long)&after_steps"))


def names():
    frame, found = gdb.newest_frame(), []
    while frame is not None and len(found) < 50:
        found.append(frame.name() or "?")
        if frame.name() == "main":
            return found, frame
        frame = frame.older()
    return found, None


steps = hook = broken = 0
while steps < 3000:
    # The kernel's own clock code starts over whenever its data changed: stepped slowly, it never ends.
    inside_clock = "gettimeofday" in (gdb.newest_frame().name() or "")
    gdb.execute("finish" if inside_clock else "stepi", to_string=True)
    if gdb.selected_frame().pc() == end:
        break
    steps += 1
    found, main = names()
    hook += found[0].startswith("hook_objc_msgSend")
    # A frame of main with another stack pointer would be a guess.
    if main is None or main.read_register("sp") != main_stack:
        broken += 1
        print("at %x: %s" % (gdb.selected_frame().pc(), found))
print("stepped %d hook %d broken %d" % (steps, hook, broken))
