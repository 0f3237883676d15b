#include "Tools/skelda-collector/FrameLogReport.h"

#include "Tools/Shared/FrameLogReader.h"
#include "Tools/Shared/FrameSummary.h"
#include "Tools/Shared/PayloadText.h"

using namespace skelda::tools;

FrameLogReport FrameLogReport::of(std::string_view bytes) {
  FrameLogReader reader(bytes);
  FrameSummary summary;
  FrameRecord frame;
  FrameLogReport report;
  auto result = FrameLogReader::Result::end;
  while (report.fault.empty() && (result = reader.next(frame)) == FrameLogReader::Result::frame) {
    report.fault = flawOf(frame);
    if (report.fault.empty()) summary.add(frame);
  }
  if (result == FrameLogReader::Result::torn) report.fault = "torn frame: " + reader.problem();
  if (result == FrameLogReader::Result::damaged) report.fault = "damaged: " + reader.problem();
  if (bytes.empty()) report.fault = "no frames";
  report.offset = reader.offset();
  report.frames = summary.frames();
  report.sessions = summary.sessions();
  report.events = summary.events();
  return report;
}
