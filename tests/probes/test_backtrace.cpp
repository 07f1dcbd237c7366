#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <vector>

#include "tests/probes/allocation_count.h"
#include "vitalscope/platform/scripted/scripted_platform.h"
#include "vitalscope/probes/QBVitalscopeBacktrace.h"
#include "vitalscope/probes/stack_walk.h"

namespace qbv {
namespace {

using std::string;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr ThreadPort mainThread = ScriptedTask::kMainThread;
constexpr ThreadPort worker = 4711;
constexpr std::uint64_t text = 0x100000000;
constexpr std::uint64_t stack = 0x16f000000;

class BacktraceTest : public testing::Test {
 protected:
  BacktraceTest() {
    QBVitalscopeBacktrace::load();
    ScriptedImage image = ScriptedImageBuilder()
                              .segment("__TEXT", text, 0x10000)
                              .linkedit()
                              .symbols({{"_start", text + 0x100},
                                        {"_main", text + 0x200},
                                        {"__wait", text + 0x300},
                                        {"_nothing", text + 0x400}})
                              .build();
    scripted.images.setLoadAddress(scripted.images.add(std::move(image), "/opt/Quib/quibapp"), text);
  }

  // A thread in its own piece of stack, with these return addresses and an outermost record at the end.
  void addThread(ThreadPort port, std::uint64_t pc, std::uint64_t lr, std::vector<std::uint64_t> returns) {
    ThreadState state;
    state.pc = pc;
    state.lr = lr;
    returns.push_back(0);
    state.fp = scripted.task.mapFrameChain(stack + port * 0x10000ULL, returns);
    scripted.task.addThread({port, {}, state});
  }

  static std::size_t frameCount(const string& block) {
    return static_cast<std::size_t>(std::count(block.begin(), block.end(), '\n')) - 2;
  }

  void expectAllResumed() {
    EXPECT_THAT(scripted.task.suspendedThreads(), IsEmpty());
    EXPECT_EQ(scripted.task.callCount(TaskCall::thread_suspend),
              scripted.task.callCount(TaskCall::thread_resume));
  }

  ScriptedPlatform scripted;
};

TEST_F(BacktraceTest, TheMainThreadsBlock) {
  addThread(mainThread, text + 0x310, 0, {text + 0x220, text + 0x108});
  scripted.task.setCpuUsage(mainThread, 995);
  scripted.task.setFootprint(161'061'274);  // 153.6 MB
  EXPECT_EQ(QBVitalscopeBacktrace::qbv_backtraceOfMainThread(),
            "Thread 0:: Dispatch queue: com.apple.main-thread , CPU:99.50%, Memory Usage:153.60M \n"
            "0   quibapp                         0x0000000100000310 _wait + 16\n"
            "1   quibapp                         0x0000000100000220 main + 32\n"
            "2   quibapp                         0x0000000100000108 start + 8\n"
            "\n");
  expectAllResumed();
}

// What one thread returns to may be where another one stands.
TEST_F(BacktraceTest, OneAddressIsLookedUpByWhatItIsInEachThread) {
  addThread(worker, text + 0x310, 0, {text + 0x400, text + 0x108});
  addThread(worker + 1, text + 0x400, 0, {text + 0x400, text + 0x108});
  const string all = QBVitalscopeBacktrace::qbv_backtraceOfAllThread();
  const string returned = "1   quibapp                         0x0000000100000400 _wait + 256\n";
  EXPECT_THAT(all,
              HasSubstr("Thread 4711: \n0   quibapp                         0x0000000100000310 _wait + 16\n" +
                        returned));
  EXPECT_THAT(
      all, HasSubstr("Thread 4712: \n0   quibapp                         0x0000000100000400 nothing + 0\n" +
                     returned));
}

TEST_F(BacktraceTest, FiguresThatCannotBeReadShowTheirSentinels) {
  addThread(mainThread, text, 0, {});
  scripted.task.fail(TaskCall::thread_info);
  scripted.task.fail(TaskCall::task_info);
  EXPECT_THAT(QBVitalscopeBacktrace::qbv_backtraceOfMainThread(),
              HasSubstr(", CPU:-1.00%, Memory Usage:0.00M \n"));
}

TEST_F(BacktraceTest, TheLinkRegisterComesSecondAndTagBitsAreTakenOff) {
  const std::uint64_t tag = 0xABCD'0010'0000'0000;
  addThread(worker, tag | (text + 0x204), tag | (text + 0x308), {tag | (text + 0x408)});
  EXPECT_EQ(_qbv_backtraceOfThread(worker),
            "Thread 4711: \n"
            "0   quibapp                         0x0000000100000204 main + 4\n"
            "1   quibapp                         0x0000000100000308 _wait + 8\n"
            "2   quibapp                         0x0000000100000408 nothing + 8\n"
            "\n");
}

// A return address is looked up inside the call before it, a program counter as it is.
TEST_F(BacktraceTest, ACallAtTheEndOfAFunctionKeepsItsName) {
  addThread(worker, text + 0x300, 0, {text + 0x300});
  EXPECT_EQ(_qbv_backtraceOfThread(worker),
            "Thread 4711: \n"
            "0   quibapp                         0x0000000100000300 _wait + 0\n"
            "1   quibapp                         0x0000000100000300 main + 256\n"
            "\n");
}

TEST_F(BacktraceTest, AChainEndsAtAHundredFrames) {
  const std::vector<std::uint64_t> chain(150, text + 0x210);
  addThread(worker, text, 0, chain);
  EXPECT_EQ(frameCount(_qbv_backtraceOfThread(worker)), 100U);
  addThread(worker + 1, text, text, chain);
  const string withLink = _qbv_backtraceOfThread(worker + 1);
  EXPECT_EQ(frameCount(withLink), 100U);
  EXPECT_THAT(withLink, HasSubstr("\n99  quibapp"));

  ThreadState circle;
  circle.pc = text;
  circle.fp = 0x5000;
  scripted.task.mapFrameRecord(0x5000, 0x5000, text + 0x210);
  scripted.task.setState(worker, circle);
  EXPECT_EQ(frameCount(_qbv_backtraceOfThread(worker)), 100U);
  expectAllResumed();
}

TEST_F(BacktraceTest, ABrokenChainKeepsWhatWasGathered) {
  addThread(worker, text, 0, {text + 0x210, text + 0x220, 0, text + 0x230});
  EXPECT_EQ(frameCount(_qbv_backtraceOfThread(worker)), 3U) << "ends before the return address 0";

  ThreadState state;
  state.pc = text;
  state.fp = 0x5000;
  scripted.task.mapFrameRecord(0x5000, 0x6000, text + 0x210);
  scripted.task.mapFrameRecord(0x6000, 0x7000, text + 0x220);  // nothing is mapped there
  scripted.task.setState(worker, state);
  const string block = _qbv_backtraceOfThread(worker);
  EXPECT_EQ(frameCount(block), 2U) << "the record before the unreadable one is not listed either";
  EXPECT_THAT(block, testing::Not(HasSubstr("0x0000000100000220")));
  expectAllResumed();
}

TEST_F(BacktraceTest, FailuresAreSentencesInPlaceOfTheBlock) {
  addThread(worker, text, 0, {text + 0x210});
  scripted.task.failReadsAt(stack + worker * 0x10000ULL);
  EXPECT_EQ(_qbv_backtraceOfThread(worker), "Fail to get frame pointer");
  scripted.task.addThread({worker, {}, {}});
  EXPECT_EQ(_qbv_backtraceOfThread(worker), "Fail to get frame pointer");
  expectAllResumed();
  EXPECT_EQ(scripted.task.callCount(TaskCall::thread_resume), 2U);

  EXPECT_EQ(_qbv_backtraceOfThread(4'000'000'000), "Fail to get information about thread: 4000000000");
  EXPECT_EQ(QBVitalscopeBacktrace::qbv_backtraceOfMainThread(), "Fail to get information about thread: 259");
  EXPECT_EQ(scripted.task.callCount(TaskCall::thread_suspend), 2U) << "no state, no suspension";
}

TEST_F(BacktraceTest, TheStackIsReadWhileTheThreadIsSuspendedAndNothingIsAllocated) {
  addThread(worker, text, text, std::vector<std::uint64_t>(30, text + 0x210));
  ThreadState state;
  ASSERT_EQ(scripted.task.thread_get_state(worker, &state), KERN_SUCCESS);
  scripted.task.clearCalls();
  AddressList list;
  const int before = allocationCount();
  ASSERT_TRUE(walkStack(scripted.task, worker, state, list));
  EXPECT_EQ(allocationCount(), before);
  EXPECT_EQ(list.count, 32U);

  const std::vector<TaskCallRecord> calls = scripted.task.calls();
  ASSERT_GE(calls.size(), 3U);
  EXPECT_EQ(calls.front().call, TaskCall::thread_suspend);
  EXPECT_EQ(calls.back().call, TaskCall::thread_resume);
  EXPECT_EQ(scripted.task.callCount(TaskCall::vm_read_overwrite), calls.size() - 2);
}

TEST_F(BacktraceTest, AllThreadsButTheCallingOne) {
  addThread(mainThread, text + 0x210, 0, {text + 0x108});
  addThread(ScriptedTask::kSelf, text, 0, {});
  scripted.task.addThread({worker, {}, {}});
  addThread(worker + 1, text + 0x304, 0, {});
  EXPECT_EQ(QBVitalscopeBacktrace::qbv_backtraceOfAllThread(),
            "\n"
            "Thread 0:: Dispatch queue: com.apple.main-thread , CPU:0.00%, Memory Usage:0.00M \n"
            "0   quibapp                         0x0000000100000210 main + 16\n"
            "1   quibapp                         0x0000000100000108 start + 8\n"
            "\n"
            "Fail to get frame pointerThread 4712: \n"
            "0   quibapp                         0x0000000100000304 _wait + 4\n"
            "\n");
  EXPECT_EQ(scripted.task.portsOutstanding(), 0U);
  EXPECT_EQ(scripted.task.listsOutstanding(), 0U);
  expectAllResumed();

  std::vector<TaskCall> order;
  for (const TaskCallRecord& call : scripted.task.calls()) {
    if (call.call == TaskCall::willCaptureThreads || call.call == TaskCall::didCaptureThreads ||
        call.call == TaskCall::vm_deallocate) {
      order.push_back(call.call);
    }
  }
  EXPECT_THAT(
      order, ElementsAre(TaskCall::willCaptureThreads, TaskCall::didCaptureThreads, TaskCall::vm_deallocate));
}

TEST_F(BacktraceTest, WithoutAThreadListThereIsASentence) {
  scripted.task.fail(TaskCall::task_threads);
  EXPECT_EQ(QBVitalscopeBacktrace::qbv_backtraceOfAllThread(), "Fail to get information of all threads");
  scripted.task.clearFailures();
  EXPECT_EQ(QBVitalscopeBacktrace::qbv_backtraceOfAllThread(), "\n");
  scripted.task.fail(TaskCall::vm_deallocate);
  EXPECT_DEATH(QBVitalscopeBacktrace::qbv_backtraceOfAllThread(),
               "kr == KERN_SUCCESS.*\\+\\[QBVitalscopeBacktrace "
               "qbv_backtraceOfAllThread\\].*QBVitalscopeBacktrace.*73");
}

TEST_F(BacktraceTest, MachineContext) {
  addThread(worker, 0xABCD'0000'0000'1234, 0x77, {});
  qbv_machine_context context{};
  EXPECT_EQ(offsetof(qbv_machine_context, thread_state), 16U);
  ASSERT_TRUE(qbv_fillThreadStateIntoMachineContext(worker, &context));
  EXPECT_EQ(qbv_mach_instructionAddress(&context), 0xABCD'0000'0000'1234);
  EXPECT_EQ(qbv_mach_linkRegister(&context), 0x77U);
  EXPECT_EQ(qbv_mach_framePointer(&context), stack + worker * 0x10000ULL);
  EXPECT_FALSE(qbv_fillThreadStateIntoMachineContext(99, &context));
  EXPECT_EQ(qbthread_self(), ScriptedTask::kSelf);
}

TEST_F(BacktraceTest, CopyingAndComparingTolerateWhatIsMissing) {
  scripted.task.mapWords(0x9000, {1, 2});
  std::uint64_t words[2] = {};
  EXPECT_EQ(qbv_mach_copyMem(reinterpret_cast<const void*>(0x9000), words, sizeof words), KERN_SUCCESS);
  EXPECT_THAT(words, ElementsAre(1, 2));
  EXPECT_NE(qbv_mach_copyMem(reinterpret_cast<const void*>(0xA000), words, sizeof words), KERN_SUCCESS);

  EXPECT_STREQ(qbv_lastPathEntry("/usr/lib/libc.so.6"), "libc.so.6");
  EXPECT_STREQ(qbv_lastPathEntry("plain"), "plain");
  EXPECT_STREQ(qbv_lastPathEntry("/folder/"), "");
  EXPECT_EQ(qbv_lastPathEntry(nullptr), nullptr);
  EXPECT_EQ(safe_strcmp("a", "a"), 0);
  EXPECT_LT(safe_strcmp("a", "b"), 0);
  EXPECT_EQ(safe_strcmp(nullptr, "a"), 1);
  EXPECT_EQ(safe_strcmp(nullptr, nullptr), 1);
}

}  // namespace
}  // namespace qbv
