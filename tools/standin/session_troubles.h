// What the kinds of trouble do to a session.
#ifndef VELPROBE_STANDIN_SESSION_TROUBLES_H_
#define VELPROBE_STANDIN_SESSION_TROUBLES_H_

#include <string_view>

#include "answer.h"
#include "trouble.h"
#include "util/error_text.h"

namespace velprobe::standin {

// Changes to the answer before it is written.
void offer_next_major(AnswerPlan& answer, const Trouble& trouble);
void offer_next_minor(AnswerPlan& answer, const Trouble& trouble);
void offer_authentication(AnswerPlan& answer, const Trouble& trouble);
void refuse(AnswerPlan& answer, const Trouble& trouble);
void refuse_with_escapes(AnswerPlan& answer, const Trouble& trouble);

// What is sent in place of the answer. Those after which nothing can follow
// note the end of the session in its record; all note what the client got.
// They fail with the texts of the stream and with those that tell of its end.
ErrorText stay_silent(Conversation& conversation, const Trouble& trouble,
                      std::string_view answer);
ErrorText answer_slowly(Conversation& conversation, const Trouble& trouble,
                        std::string_view answer);
ErrorText answer_late(Conversation& conversation, const Trouble& trouble,
                      std::string_view answer);
ErrorText close_unanswered(Conversation& conversation, const Trouble& trouble,
                           std::string_view answer);
ErrorText reset_unanswered(Conversation& conversation, const Trouble& trouble,
                           std::string_view answer);
ErrorText answer_by_half(Conversation& conversation, const Trouble& trouble,
                         std::string_view answer);
ErrorText answer_garbage(Conversation& conversation, const Trouble& trouble,
                         std::string_view answer);
ErrorText greet(Conversation& conversation, const Trouble& trouble,
                std::string_view answer);
ErrorText answer_endlessly(Conversation& conversation, const Trouble& trouble,
                           std::string_view answer);
ErrorText answer_with_depth(Conversation& conversation, const Trouble& trouble,
                            std::string_view answer);
ErrorText answer_after_filler(Conversation& conversation,
                              const Trouble& trouble, std::string_view answer);

}  // namespace velprobe::standin

#endif  // VELPROBE_STANDIN_SESSION_TROUBLES_H_
