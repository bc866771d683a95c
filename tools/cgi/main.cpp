#include <clocale>
#include <cstdio>
#include <unistd.h>

#include "cgi_answer.h"

/*
 * A CGI/1.1 program that plays and stops the stored clips and serves a page with buttons for that.
 * It keeps no state between requests. docs/web.md describes its parameters and answers.
 */
int main()
{
    setlocale(LC_ALL, "C.UTF-8");
    CgiRequest request;
    const CgiOutcome outcome = cgi_request_read(&request, STDIN_FILENO);
    const CgiAnswer answer = cgi_answer_make(request, outcome);
    const std::string text = cgi_answer_format(answer, !request.is_head);
    const bool written = fwrite(text.data(), 1, text.size(), stdout) == text.size();
    return written && fflush(stdout) == 0 ? 0 : 1;
}
