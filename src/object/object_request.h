/*
 * object_request.h - the checks every entry makes of a request, whatever
 * the operation: who asks, how deep the record is, that no name or value
 * holds a NUL character, the namespace, and the binary sources the
 * requester names.
 *
 * Each operation first tests its own members (their texts are its own),
 * then asks CheckRequest, all before anything is read or written:
 *
 *     if (KOLV_FAIL_IF(1007, !jParm.isMember("ns") || ...)) return false;
 *     if (!kolv::CheckRequest(jParm)) return false;
 */
#ifndef KOLVVESSA_OBJECT_REQUEST_H
#define KOLVVESSA_OBJECT_REQUEST_H

#include <json/json.h>

#include "kolvvessa/kolvvessa_object.h"

namespace kolv {

/* A uid as a request gives it: a JSON integer from 0 to 4294967294
 * (UID_ERR is no user). A string, a number written with a fraction or an
 * exponent (1101.0 too), a negative or a larger value is none. */
bool IsUidValue(const Json::Value &jVal);

/* The nesting of containers in jVal, jVal itself counting as 1 when it is
 * an object or array; stops counting once past limit (so a hostile record
 * cannot exhaust the stack here). */
unsigned RequestDepth(const Json::Value &jVal, unsigned limit = KOLVVESSA_REQUEST_DEPTH_MAX);

/* Whether any member name or string value, at any depth, holds a NUL.
 * REQUIRES: RequestDepth(jVal) <= KOLVVESSA_REQUEST_DEPTH_MAX. */
bool HasNulCharacter(const Json::Value &jVal);

/* The members every operation on one object takes: string "ns" and "id",
 * integral "requester"; 1007 with the test written out. */
bool CheckObjectMembers(const Json::Value &jParm);

/* The checks every entry shares, each 1007 with its condition written
 * out: "requester" a uid, the record no deeper than
 * KOLVVESSA_REQUEST_DEPTH_MAX, no NUL in any name or value, "ns" a
 * namespace name ("*" only where blAllNamespaces and for requester 0).
 * REQUIRES: jParm is an object with a string "ns" and a "requester". */
bool CheckRequest(const Json::Value &jParm, bool blAllNamespaces = false);

/* The "requester" of a string hash as a JSON value for CheckRequest: a
 * plain decimal number becomes an integer; any other text ("", a sign,
 * spaces, too many digits) stays text, which CheckRequest refuses. Digits
 * followed by anything else fail here with 1007. */
bool HashRequester(const char *szVal, Json::Value &jOut);

/* Every "binary_files" item with "format":"object" copies a file out of
 * another object of the namespace: the requester must be able to read
 * that object as Get reads it. 1007 for a malformed item, 1023 when he
 * may not read it (a missing object looks the same). */
bool CheckBinarySources(const Json::Value &jParm);

} // namespace kolv

#endif /* KOLVVESSA_OBJECT_REQUEST_H */
