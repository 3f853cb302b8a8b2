// Cutting a known span into the parts that match it.
#ifndef VELPROBE_MODULES_REGEX_REGEX_CUT_H_
#define VELPROBE_MODULES_REGEX_REGEX_CUT_H_

#include "regex_one_pass.h"
#include "regex_rest.h"

namespace velprobe {

// Piece is what one cut is to find the end of: a child of a sequence, or one
// iteration of a repetition. Its automaton runs in the child's first copy.
struct Piece {
  std::uint32_t node;
  std::uint32_t begin;  // of its own copy in the program
  std::uint32_t rest;   // where the program goes on behind it
};

// run_back runs a part back from *at to begin or to where it stops, and leaves
// *at there. It stores the state at each place p in kept[p - begin], when not
// null, and the last place where the part could begin in *accepted. Returns the
// last state's entry, or kUnknown or kThrashing as Dfa::step.
Entry run_back(const Subject& subject, Dfa& dfa, std::uint32_t part,
               std::size_t begin, std::size_t* at, Entry* kept,
               std::size_t* accepted);

// SpanCutter answers for one node and one span at a time where its parts end.
// It runs the node back over the span and keeps the states; then each piece
// runs forwards, and the last place where it may end and the rest fits is the
// cut. All pieces together read the span about twice.
class SpanCutter {
 public:
  [[nodiscard]] bool init(const RegexProgram& program, Walker& walker,
                          Dfa& back, Simulation& simulation,
                          std::size_t budget);

  // prepare takes up the node and its span. Without keep only the span's begin
  // can be asked about, and nothing can be cut. This and all that follow are
  // false when out of memory.
  [[nodiscard]] bool prepare(const Subject& subject, std::uint32_t node,
                             std::size_t begin, std::size_t end, bool keep);

  // fits tells whether what begins at instruction rest, which is marked, can
  // match from at to the end of the span.
  [[nodiscard]] bool fits(std::size_t at, std::uint32_t rest, bool* out_answer);

  // cut finds the last end of a piece that begins at from.
  [[nodiscard]] bool cut(const Piece& piece, std::size_t from,
                         std::size_t* out_end);

  // guide gives the states that prepare kept, with has_guide: when they did
  // not help there are none.
  bool has_guide() const { return !simulated_; }
  Guide guide() const { return {*back_, rows_.data()}; }

  // matches_null tells whether a node matches the null string at a place.
  [[nodiscard]] bool matches_null(const Subject& subject, std::uint32_t node,
                                  std::size_t at, bool* out_answer);

  // ends_of appends to ends every place up to limit where a match of the node
  // that begins at from can end, ascending.
  [[nodiscard]] bool ends_of(const Subject& subject, std::uint32_t node,
                             std::size_t from, std::size_t limit,
                             Array<std::size_t>& ends);

  // release gives back what grew with the last span.
  void release();

  std::uint64_t steps = 0;
  std::size_t bytes() const;

 private:
  // Whether a forward and a backward state have a way in common.
  struct Meeting {
    Entry forward;
    Entry backward;
    std::uint32_t shift;
    std::uint32_t byte_class;
    std::uint32_t generation;
    bool answer;
  };
  static constexpr std::size_t kNumMeetings = 256;

  Part part_of(std::uint32_t node) const;
  std::uint32_t number_of(Array<std::uint32_t>& numbers, Dfa& dfa,
                          std::uint32_t node);
  [[nodiscard]] bool keep_rows(std::uint32_t part, bool keep, bool* out_done);
  [[nodiscard]] bool simulate();
  bool meet(Entry forward, std::size_t at, std::uint32_t shift);
  bool find_meeting(Entry forward, Entry backward, std::uint32_t shift,
                    std::uint32_t byte_class) const;
  [[nodiscard]] bool cut_by_states(const Piece& piece, std::size_t from,
                                   std::size_t* out_end, bool* out_done);
  [[nodiscard]] bool cut_by_simulation(const Piece& piece, std::size_t from,
                                       std::size_t* out_end);
  Entry row_at(std::size_t at) const { return rows_[at - begin_]; }

  const RegexProgram* program_ = nullptr;
  Dfa* back_ = nullptr;
  Walker* walker_ = nullptr;
  Simulation* simulation_ = nullptr;
  SimulatedRest rest_;
  Dfa forward_;
  Array<std::uint32_t> forward_numbers_;  // of parts, by node
  Array<std::uint32_t> back_numbers_;
  Array<Entry> rows_;  // of back_, for each place of the span
  Array<Meeting> meetings_;
  // The node and span at hand.
  const Subject* subject_ = nullptr;
  std::uint32_t node_ = 0;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
  bool simulated_ = false;
};

}  // namespace velprobe

#endif  // VELPROBE_MODULES_REGEX_REGEX_CUT_H_
