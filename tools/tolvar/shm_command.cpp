#include "tools/tolvar/shm_command.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <string>

#include "platform/exception.h"
#include "tools/shared/standard_output.h"
#include "tools/tolvar/shm_removal.h"
#include "tools/tolvar/shm_report.h"

namespace tolvar::tools {
namespace {

/// A segment that is written while it is read is read again, this often at most.
constexpr int kReadings = 5;

SegmentReport readSegment(const SegmentSlot& slot) {
  SegmentReport report = inspectSegment(slot.shm.getPointer(), slot.shm.size());
  for (int i = 1; i < kReadings && report.changedMeanwhile; ++i)
    report = inspectSegment(slot.shm.getPointer(), slot.shm.size());
  return report;
}

/// `slots` outlives the report.
ImageReport readImage(const ImageKeys& keys, ImageSlots* slots) {
  openImage(keys, slots);
  if (!slots->anyOurs())
    throw qel::ZU_Exception("there is no image of this library behind the keys " +
                            formatKeys(keys) + "; tolvar shm ls lists those on this host");
  ImageReport report;
  report.slots = slots;
  for (std::size_t i = 0; i < report.data.size(); ++i)
    if (slots->segments[i].state == SegmentSlot::State::Ours)
      report.data[i] = readSegment(slots->segments[i]);
  // A writer that came meanwhile explains what it was in the middle of; one that has gone does not
  // excuse what stayed.
  const auto lockNow = qel::semaphoreBehind(keys[2]);
  if (lockNow && lockNow->held) slots->lock = lockNow;
  report.damage = countDamage(report);
  return report;
}

}  // namespace

CLI::App* ShmCommand::declareAction(CLI::App& app, const char* name, const char* description,
                                    Action what) {
  CLI::App* const sub = app.add_subcommand(name, description);
  sub->callback([this, what] { action = what; });
  if (what != Action::List) {
    sub->add_option_function<std::string>(
           "--keys", [this](const std::string& text) { keys = parseKeys(text); },
           "The image's three keys, as K1,K2,K3; decimal or 0x and hexadecimal")
        ->required();
  }
  if (what != Action::Remove) sub->add_flag("--json", json, "Print one JSON document");
  return sub;
}

void ShmCommand::declare(CLI::App& app) {
  app.require_subcommand(1);
  app.footer("Exit status: 2 nothing was done; else as the --help of each command says.");
  declareAction(app, "ls", "List the images on this host, and who is attached", Action::List)
      ->footer("Exit status: 0 done, 2 the system does not say which segments there are.");
  declareAction(app, "show", "Show one image: statuses, counts, sizes, digests", Action::Show)
      ->footer("Exit status: 0 done, 2 it could not be read.");
  declareAction(app, "verify", "Decode every node of both segments and say what is wrong",
                Action::Verify)
      ->footer("Exit status: 0 the image is whole, 1 it is damaged, 2 it could not be read.");
  declareAction(app, "rm", "Remove an image that nobody uses", Action::Remove)
      ->footer("Exit status: 0 removed, 1 refused, 2 failed.")
      ->add_flag("--force", force, "Also while processes are attached; they keep what they map");
}

ExitStatus ShmCommand::run() const {
  switch (action) {
    case Action::Show: return show();
    case Action::Verify: return verify();
    case Action::Remove: return remove();
    default: return list();
  }
}

ExitStatus ShmCommand::list() const {
  std::size_t unreadable = 0;
  const std::vector<FoundImage> images = findImages(&unreadable);
  print(json ? listJson(images, unreadable) : listText(images, unreadable));
  if (unreadable != 0)
    std::fprintf(stderr,
                 "tolvar: %zu segments belong to others and could not be read; run as their owner "
                 "or as root\n",
                 unreadable);
  return kExitDone;
}

ExitStatus ShmCommand::show() const {
  ImageSlots slots;
  const ImageReport report = readImage(keys, &slots);
  print(json ? showJson(report) : showText(report));
  return kExitDone;
}

ExitStatus ShmCommand::verify() const {
  ImageSlots slots;
  const ImageReport report = readImage(keys, &slots);
  print(json ? verifyJson(report) : verifyText(report));
  return report.damage == 0 ? kExitDone : kExitNo;
}

ExitStatus ShmCommand::remove() const {
  const Removal removal = removeImage(keys, force);
  if (removal.done) {
    print(removal.text);
  } else {
    std::fprintf(stderr, "tolvar: %s", removal.text.c_str());
  }
  return removal.done ? kExitDone : kExitNo;
}

}  // namespace tolvar::tools
