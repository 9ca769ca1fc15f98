// A liblog logger for the command-line tool: the reports the library logs become plain text on
// standard output, the rest goes to standard error or is dropped.
#pragma once

namespace zel_prof {

// Installs the logger. Report lines are printed without the library's version prefix, as the
// library wrote them otherwise. With `verbose` every line of the library is shown.
void InstallStdoutLogger(bool verbose);

// While on, every library line goes to standard output: the calls that print reports are
// wrapped in it. While off, only warnings and errors are shown (on standard error).
void SetReportCapture(bool on);

// Turns report capture on for one scope.
class ReportScope {
  public:
    ReportScope() { SetReportCapture(true); }
    ~ReportScope() { SetReportCapture(false); }
    ReportScope(const ReportScope&) = delete;
    ReportScope& operator=(const ReportScope&) = delete;
};

}  // namespace zel_prof
