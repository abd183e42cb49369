#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "KDXFileTools/kdxoffload/Events.h"
#include "KDXFileTools/kdxoffload/OutputStream.h"
#include "KDXFileTools/kdxoffload/RunningJobs.h"
#include "platform/Terminal.h"

namespace kdxoffload {

// For a person at a terminal: a few lines, redrawn in place at the terminal's width on `messages` (standard error), and the
// reasons and the verdict on `results` (standard output) at the end.
//
// The cursor is never hidden. Between two drawings it stands at the beginning of the line below the last one, with no colour
// switched on. So whatever ends the process, even SIGKILL, leaves whole lines and a place for the prompt.
class TerminalDisplay final : public Listener {
 public:
  struct Look {
    bool colours = true;         // not with NO_COLOR
    bool quiet = false;          // only failures and the verdict
    bool resultColours = false;  // results go to a terminal, and colours are wanted
    // Called before each drawing, so that the next drawing has the new size.
    std::function<platform::TerminalSize()> size = [] { return platform::TerminalSize{}; };
  };
  // The streams are the caller's.
  TerminalDisplay(OutputStream& results, OutputStream& messages, Look look);
  void take(const Event& event) override;

 private:
  enum class Colour : uint8_t { none, good, bad, faint };
  struct Line {
    std::string text{};
    Colour colour = Colour::none;
  };

  void redraw();
  void sayAbove(const std::string& lines);
  void takeEnd(const Finished& finished);
  [[nodiscard]] std::vector<Line> linesAt(platform::TerminalSize size) const;
  [[nodiscard]] std::vector<Line> runningLines(std::size_t columns, std::size_t atMost) const;
  [[nodiscard]] std::vector<Line> destinationLines(std::size_t columns, std::size_t atMost) const;
  [[nodiscard]] std::string barLine(std::size_t columns) const;
  [[nodiscard]] std::string drawing(const std::vector<Line>& lines) const;
  [[nodiscard]] std::string toTheTop(std::size_t columns) const;

  OutputStream& _results;
  OutputStream& _messages;
  Look _look;
  RunningJobs _running;
  std::optional<Progress> _progress;
  std::string _looking;  // what goes on while no job does; empty while one does
  double _share = 0;     // of the bar; the largest that there was
  std::string _lastFailure;
  std::vector<std::size_t> _drawn;  // columns of the lines that stand above the cursor
  bool _isStopping = false;
  bool _isFinished = false;
};

}  // namespace kdxoffload
