/*
 * What the service's answers mean for the person at the terminal: a good one is handed on as its
 * JSON object, every other one becomes the one sentence to print.
 */
#ifndef CORVANE_CLIENT_ANSWERS_H
#define CORVANE_CLIENT_ANSWERS_H

#include "coap_client.h"
#include "endpoint.h"

#include <nlohmann/json.hpp>

#include <string>

namespace corvane::client {

/* The one line for an answer that is not good. */
std::string sentenceFor(const Reply &reply, const std::string &resource, const Endpoint &endpoint);

/* The object of a good answer; throws CommandFailed with the sentence for any other. */
nlohmann::json goodAnswer(const Reply &reply, const std::string &resource,
                          const Endpoint &endpoint);

/* A member of a good answer; throws CommandFailed when it is missing or of another type. */
template <typename T>
T member(const nlohmann::json &answer, const char *name, const std::string &resource);

/* Sends the request and returns the object of its good answer. */
nlohmann::json ask(CoapClient &client, const std::string &resource);
nlohmann::json order(CoapClient &client, const std::string &resource, const nlohmann::json &body);

/* Text from outside made fit for one line of a terminal: control characters become '?', and a text
 * of more than limit characters is cut. */
std::string printable(const std::string &text, std::size_t limit);

} // namespace corvane::client

#endif
