// What every transfer service promises to its sessions, checked on the real one (against a scripted server)
// and on the scripted one (with both ways of delivery).

#include "tests/platform/TransferWorld.h"
#include "tests/support/Expectation.h"
#include "tests/support/RecordingSessionDelegate.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <map>
#include <string>
#include <utility>

using namespace contract;
using namespace platform;
using namespace support;

namespace {

/// Whether the events came in this order, progress ("w") any number of times in a row.
bool isOrder(std::string events, const std::string& wanted) {
  for (std::size_t at; (at = events.find("ww")) != std::string::npos;)
    events.erase(at, 1);
  return events == wanted;
}

bool isURLError(const ErrorRef& error, std::int64_t code) {
  return error && error->domain().isIdenticalTo(NSURLErrorDomain) && error->code() == code;
}

std::string textOf(const RecordingSessionDelegate::TaskRecord& record) {
  const auto error = record.completions.empty() ? nullptr : record.completions.front();
  return error ? error->localizedDescription() : std::string("no error");
}

class TransferContract : public testing::TestWithParam<Kind> {
protected:
  void SetUp() override { world = makeWorld(GetParam()); }
  void TearDown() override {
    session.reset();
    if (world)
      world->settle();
  }

  std::shared_ptr<URLSession> open(const std::string& identifier = {}, ErrorRef* error = nullptr) {
    auto configuration = URLSessionConfiguration::backgroundSessionConfigurationWithIdentifier(identifier);
    configuration.service = world->service();
    configuration.retryLimit = 0;
    return URLSession::sessionWithConfiguration(configuration, delegate, nullptr, error);
  }
  URLRequest request(const std::string& path) {
    return URLRequest(*URL::URLWithString(path.front() == '/' ? world->url(path) : path));
  }
  DownloadTaskRef makeTask(const std::string& path) {
    return session->downloadTaskWithRequest(request(path));
  }
  DownloadTaskRef start(const std::string& path) {
    auto task = makeTask(path);
    task->resume();
    world->settle();
    return task;
  }
  /// Serves /a and starts it in a new session; its response stops after 1000 bytes, until the release.
  DownloadTaskRef startHeld(const std::string& identifier = {}) {
    world->serve("/a", content);
    world->hold("/a", 1000);
    session = open(identifier);
    auto task = start("/a");
    EXPECT_TRUE(reached(task, 1000));
    return task;
  }
  /// What the next opening of a session tells goes to a new delegate: the old one may hear of a stopped
  /// transfer.
  void openAnew(const std::string& identifier) {
    delegate = std::make_shared<RecordingSessionDelegate>();
    session = open(identifier);
    ASSERT_TRUE(session);
  }
  bool completed(std::size_t count) {
    world->settle();
    return delegate->waitForCompletions(count);
  }
  bool reached(const DownloadTaskRef& task, std::int64_t total) {
    world->settle();
    return delegate->waitForProgress(task->taskIdentifier(), total);
  }
  /// Also a barrier: what was posted before has been delivered when it returns.
  std::vector<DownloadTaskRef> listTasks() {
    Arrival<std::vector<DownloadTaskRef>> tasks;
    session->getTasksWithCompletionHandler(
        [&](std::vector<DownloadTaskRef> found) { tasks.arrive(std::move(found)); });
    world->settle();
    return tasks.wait().value_or(std::vector<DownloadTaskRef>{});
  }
  RecordingSessionDelegate::TaskRecord record(const DownloadTaskRef& task) {
    return delegate->task(task->taskIdentifier());
  }

  std::unique_ptr<World> world;
  std::shared_ptr<RecordingSessionDelegate> delegate = std::make_shared<RecordingSessionDelegate>();
  std::shared_ptr<URLSession> session;
  const std::string content = std::string(200'000, 'a') + "the end";
};

TEST_P(TransferContract, DownloadsAFileAndTellsItInOrder) {
  world->serve("/a", content);
  session = open();
  auto task = makeTask("/a");
  EXPECT_EQ(task->state(), URLSessionTaskState::Suspended);
  EXPECT_EQ(task->response(), nullptr);
  EXPECT_EQ(task->countOfBytesReceived(), 0);
  EXPECT_THAT(listTasks(), testing::ElementsAre(task));

  task->resume();
  ASSERT_TRUE(completed(1));
  const auto told = record(task);
  ASSERT_TRUE(isOrder(told.order, "wfc")) << told.order << " " << textOf(told);
  EXPECT_EQ(told.progress.front().written, told.progress.front().total);
  EXPECT_EQ(told.progress.front().status, 200);
  std::int64_t sum = 0;
  for (const auto& progress : told.progress)
    EXPECT_EQ(sum += progress.written, progress.total);
  EXPECT_EQ(sum, std::int64_t(content.size()));
  EXPECT_EQ(told.content, content);
  EXPECT_EQ(told.completions.front(), nullptr);
  EXPECT_EQ(told.statesAtCompletion.front(), URLSessionTaskState::Completed);
  EXPECT_EQ(task->countOfBytesReceived(), std::int64_t(content.size()));
  EXPECT_EQ(task->countOfBytesExpectedToReceive(), std::int64_t(content.size()));
  EXPECT_EQ(task->error(), nullptr);
  EXPECT_THAT(listTasks(), testing::IsEmpty());
  EXPECT_FALSE(std::filesystem::exists(told.finishedAt.front()));

  task->cancel();
  task->resume();
  listTasks();
  EXPECT_EQ(delegate->completions(), 1U);
}

TEST_P(TransferContract, FinishesWithEmptyBodiesAndWithAnyStatus) {
  world->serve("/empty", "");
  world->serve("/missing", "no such thing", 404);
  session = open();
  auto empty = start("/empty");
  auto missing = start("/missing");
  ASSERT_TRUE(completed(2));

  const auto ofEmpty = record(empty);
  ASSERT_EQ(ofEmpty.order, "wfc") << textOf(ofEmpty);
  EXPECT_EQ(std::pair(ofEmpty.progress.front().written, ofEmpty.progress.front().total), std::pair(0L, 0L));
  EXPECT_EQ(ofEmpty.content, "");
  const auto ofMissing = record(missing);
  ASSERT_FALSE(ofMissing.progress.empty()) << textOf(ofMissing);
  EXPECT_EQ(ofMissing.progress.front().status, 404);
  EXPECT_EQ(ofMissing.progress.front().written, ofMissing.progress.front().total);
  EXPECT_EQ(ofMissing.content, "no such thing");
  EXPECT_EQ(ofMissing.completions.front(), nullptr);
}

TEST_P(TransferContract, CompletesOnceOnFailure) {
  world->serve("/a", content);
  world->breakOff("/a", 1000);
  session = open();
  auto broken = start("/a");
  ASSERT_TRUE(completed(1));
  EXPECT_EQ(record(broken).order.find('f'), std::string::npos);
  EXPECT_TRUE(isURLError(broken->error(), NSURLErrorNetworkConnectionLost));
  EXPECT_EQ(broken->state(), URLSessionTaskState::Completed);

  auto impossible = makeTask("ftp://127.0.0.1/file");
  listTasks();
  EXPECT_EQ(impossible->state(), URLSessionTaskState::Suspended);
  impossible->resume();
  ASSERT_TRUE(completed(2));
  listTasks();
  EXPECT_EQ(record(impossible).order, "c");
  EXPECT_TRUE(impossible->error()->domain().isIdenticalTo(NSURLErrorDomain));
}

TEST_P(TransferContract, CancelsOnceInEveryState) {
  auto running = startHeld();
  auto suspended = makeTask("/a");
  for (const auto& task : {running, suspended}) {
    task->cancel();
    EXPECT_NE(task->state(), URLSessionTaskState::Running);
    EXPECT_NE(task->state(), URLSessionTaskState::Suspended);
    task->cancel();
    task->resume();
  }
  ASSERT_TRUE(completed(2));
  EXPECT_THAT(listTasks(), testing::IsEmpty());
  for (const auto& task : {running, suspended}) {
    EXPECT_EQ(record(task).completions.size(), 1U);
    EXPECT_TRUE(isURLError(record(task).completions.front(), NSURLErrorCancelled));
    EXPECT_TRUE(isURLError(task->error(), NSURLErrorCancelled));
  }
}

TEST_P(TransferContract, GoesOnAfterSuspension) {
  auto task = startHeld();
  task->suspend();
  EXPECT_EQ(task->state(), URLSessionTaskState::Suspended);
  EXPECT_GE(task->countOfBytesReceived(), 1000);
  world->release();
  listTasks();
  EXPECT_EQ(delegate->completions(), 0U);
  task->resume();
  EXPECT_NE(task->state(), URLSessionTaskState::Suspended);
  ASSERT_TRUE(completed(1));
  EXPECT_EQ(record(task).content, content);
}

TEST_P(TransferContract, ContinuesFromResumeData) {
  auto task = startHeld();
  Arrival<DataRef> produced;
  std::atomic<std::size_t> completionsBefore = 99;
  task->cancelByProducingResumeData([&](DataRef data) {
    completionsBefore = delegate->completions();
    produced.arrive(std::move(data));
  });
  ASSERT_TRUE(completed(1));
  const auto data = produced.wait().value_or(nullptr);
  ASSERT_TRUE(data);
  EXPECT_EQ(completionsBefore, 0U);
  const auto error = record(task).completions.front();
  ASSERT_TRUE(isURLError(error, NSURLErrorCancelled));
  const auto* told = error->value<DataRef>(NSURLSessionDownloadTaskResumeData);
  ASSERT_TRUE(told && *told);
  EXPECT_EQ(**told, *data);

  auto resumed = session->downloadTaskWithResumeData(*data);
  EXPECT_EQ(resumed->state(), URLSessionTaskState::Suspended);
  EXPECT_EQ(resumed->originalRequest().url(), task->originalRequest().url());
  resumed->resume();
  ASSERT_TRUE(completed(2));
  const auto second = record(resumed);
  EXPECT_EQ(second.content, content);
  ASSERT_TRUE(isOrder(second.order, "rwfc")) << second.order << " " << textOf(second);
  EXPECT_EQ(second.resumedAt.front(), std::make_pair(std::int64_t(1000), std::int64_t(content.size())));
  EXPECT_EQ(second.progress.front().written, second.progress.front().total);
  listTasks();
  EXPECT_EQ(delegate->completions(), 2U);
}

TEST_P(TransferContract, HasNoResumeDataWhereThereIsNothingToResume) {
  world->serve("/a", content);
  session = open();
  auto ended = start("/a");
  ASSERT_TRUE(completed(1));
  auto neverStarted = makeTask("/a");
  for (const auto& task : {ended, neverStarted}) {
    Arrival<DataRef> produced;
    task->cancelByProducingResumeData([&](DataRef data) { produced.arrive(std::move(data)); });
    world->settle();
    const auto data = produced.wait();
    ASSERT_TRUE(data);
    EXPECT_EQ(*data, nullptr);
  }
  const std::string text = "no resume data at all";
  auto garbled = session->downloadTaskWithResumeData(Data(text.begin(), text.end()));
  garbled->resume();
  ASSERT_TRUE(completed(3));
  EXPECT_TRUE(isURLError(garbled->error(), NSURLErrorUnknown));
}

TEST_P(TransferContract, HoldsAnIdentifierAgainstOthersAndKeepsItsTasks) {
  auto running = startHeld("films");
  running->setTaskDescription("first");
  auto suspended = makeTask("/b");
  suspended->setTaskDescription("old");
  suspended->setTaskDescription("second");
  ErrorRef error;
  EXPECT_EQ(open("films", &error), nullptr);
  EXPECT_TRUE(isURLError(error, NSURLErrorBackgroundSessionInUseByAnotherProcess));
  EXPECT_NE(open("series"), nullptr);

  const auto first = running->taskIdentifier(), second = suspended->taskIdentifier();
  running.reset();
  suspended.reset();
  session.reset();
  world->settle();
  openAnew("films");
  const auto newer = makeTask("/c")->taskIdentifier();
  auto found = listTasks();
  if (found.size() == 3) { // else the running one has ended already
    EXPECT_EQ(found[0]->taskIdentifier(), first);
    EXPECT_EQ(found[0]->taskDescription(), "first");
    EXPECT_EQ(found[0]->originalRequest().url(), request("/a").url());
    found.erase(found.begin());
  }
  ASSERT_EQ(found.size(), 2U);
  EXPECT_EQ(found[0]->taskIdentifier(), second);
  EXPECT_EQ(found[0]->taskDescription(), "second");
  EXPECT_EQ(found[0]->state(), URLSessionTaskState::Suspended);
  EXPECT_EQ(found[1]->taskIdentifier(), newer);
  EXPECT_GT(newer, second);
  ASSERT_TRUE(completed(1));
  EXPECT_EQ(delegate->task(first).content, content);
}

TEST_P(TransferContract, SurvivesARelaunch) {
  auto task = startHeld("films");
  task->setTaskDescription("kept");
  auto ordinarySession = std::exchange(session, open());
  auto ordinary = makeTask("/b");
  world->service()->shutdown();
  EXPECT_EQ(delegate->completions(), 2U);
  EXPECT_TRUE(isURLError(task->error(), NSURLErrorCancelled));
  EXPECT_TRUE(isURLError(ordinary->error(), NSURLErrorCancelled));
  auto late = ordinarySession->downloadTaskWithRequest(request("/a"));
  late->resume();
  ASSERT_TRUE(completed(3));
  EXPECT_TRUE(isURLError(late->error(), NSURLErrorCancelled));

  const auto identifier = task->taskIdentifier();
  task.reset();
  ordinary.reset();
  late.reset();
  ordinarySession.reset();
  session.reset();
  world->relaunch();
  openAnew("films");
  ASSERT_TRUE(completed(1));
  EXPECT_EQ(delegate->task(identifier).content, content);
  EXPECT_EQ(delegate->task(identifier).completions.front(), nullptr);
}

TEST_P(TransferContract, InvalidatesWithAndWithoutCancelling) {
  auto running = startHeld("films");
  auto suspended = makeTask("/a");
  session->invalidateAndCancel();
  ASSERT_TRUE(completed(2));
  ASSERT_TRUE(delegate->waitForInvalid());
  EXPECT_TRUE(isURLError(running->error(), NSURLErrorCancelled));
  EXPECT_TRUE(isURLError(suspended->error(), NSURLErrorCancelled));
  auto late = makeTask("/a");
  ASSERT_TRUE(completed(3));
  EXPECT_TRUE(isURLError(late->error(), NSURLErrorCancelled));
  for (const auto& [identifier, told] : delegate->tasks())
    EXPECT_EQ(told.order.find_first_of("fc"), told.order.size() - 1) << told.order;

  openAnew("films");
  EXPECT_THAT(listTasks(), testing::IsEmpty());
  world->hold("/a", 1000);
  auto last = start("/a");
  session->finishTasksAndInvalidate();
  session.reset(); // an invalidated session keeps itself until its tasks have ended
  world->settle();
  EXPECT_EQ(delegate->completions(), 0U);
  world->release();
  ASSERT_TRUE(completed(1));
  ASSERT_TRUE(delegate->waitForInvalid());
  EXPECT_EQ(record(last).content, content);
}

TEST_P(TransferContract, AnswersDataTasksOnce) {
  struct Answer {
    int status = 0;
    std::optional<std::string> body;
    ErrorRef error;
  };
  world->serve("/a", content);
  world->serve("/missing", "nothing here", 404);
  world->serve("/broken", content);
  world->breakOff("/broken", 10);
  world->serve("/held", content);
  world->hold("/held", 10);
  session = open();
  std::map<std::string, Arrival<Answer>> answers;
  std::vector<std::shared_ptr<URLSessionDataTask>> tasks;
  for (const char* path : {"/a", "/missing", "/broken", "/held"}) {
    auto& answer = answers[path];
    tasks.push_back(session->dataTaskWithRequest(
        request(path), [&](DataRef data, std::shared_ptr<const HTTPURLResponse> response, ErrorRef error) {
          answer.arrive({response ? response->statusCode() : 0,
                         data ? std::optional(std::string(data->begin(), data->end())) : std::nullopt,
                         std::move(error)});
        }));
    tasks.back()->resume();
  }
  world->settle();
  tasks.back()->cancel();
  world->settle();

  const std::pair<const char*, Answer> good[] = {{"/a", {200, content, nullptr}},
                                                 {"/missing", {404, "nothing here", nullptr}}};
  for (const auto& [path, wanted] : good) {
    const auto answer = answers[path].wait().value();
    EXPECT_EQ(answer.error, nullptr) << path;
    EXPECT_EQ(answer.status, wanted.status);
    EXPECT_EQ(answer.body, wanted.body);
  }
  const auto broken = answers["/broken"].wait().value();
  EXPECT_EQ(broken.body, std::nullopt);
  EXPECT_TRUE(isURLError(broken.error, NSURLErrorNetworkConnectionLost));
  EXPECT_TRUE(isURLError(answers["/held"].wait().value().error, NSURLErrorCancelled));
  listTasks();
  for (const auto& [path, answer] : answers)
    EXPECT_EQ(answer.count(), 1U) << path;
}

std::string nameOf(const testing::TestParamInfo<Kind>& tested) {
  static constexpr const char* names[] = {"HTTP", "ScriptedPumped", "ScriptedOnQueue"};
  return names[static_cast<int>(tested.param)];
}

INSTANTIATE_TEST_SUITE_P(Services, TransferContract, testing::Values(Kind::HTTP, Kind::Pumped, Kind::OnQueue),
                         nameOf);

} // namespace
