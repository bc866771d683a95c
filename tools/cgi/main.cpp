#include <clocale>
#include <unistd.h>

#include "cgi_answer.h"
#include "cgi_input.h"

/*
 * A CGI/1.1 program that plays, stops and manages the stored clips and serves a page for that.
 * It keeps no state between requests. docs/web.md describes its parameters and answers.
 */
int main()
{
    setlocale(LC_ALL, "C.UTF-8");
    CgiRequest request;
    const CgiOutcome outcome = cgi_request_read(&request, STDIN_FILENO);
    const CgiAnswer answer = cgi_answer_make(request, outcome, STDIN_FILENO);
    const bool is_sent = cgi_answer_send(answer, !request.is_head, STDOUT_FILENO);
    cgi_input_drain(STDIN_FILENO, cgi_request_get_body_length());
    return is_sent ? 0 : 1;
}
