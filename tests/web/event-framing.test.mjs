// The console's event-stream parser, byte by byte where it matters: frames split anywhere between
// chunks, CR LF and CR line breaks (a CR LF split between chunks is one break), ids on frames without
// data, retry hints, comments, multi-line data. Plain Node, no browser.
import assert from 'node:assert/strict';
import { FrameParser } from '../../web/events.js';

function parse(chunks) {
  const seen = [];
  const parser = new FrameParser({
    onFrame: (type, data) => seen.push(['frame', type, data]),
    onId: (id) => seen.push(['id', id]),
    onRetry: (milliseconds) => seen.push(['retry', milliseconds]),
  });
  for (const chunk of chunks) parser.push(chunk);
  return seen;
}

const stream = 'retry: 3000\n\n'
  + 'id: 0badf00d-1\nevent: created\ndata: {"type":"created","path":"/routines/A-0"}\n\n'
  + ': a comment\nid: 0badf00d-2\nevent: updated\ndata: {"type":"updated",\ndata: "path":"/routines/A-0"}\n\n';
const expected = [
  ['retry', 3000],
  ['id', '0badf00d-1'], ['frame', 'created', '{"type":"created","path":"/routines/A-0"}'],
  ['id', '0badf00d-2'], ['frame', 'updated', '{"type":"updated",\n"path":"/routines/A-0"}'],
];

// Whole, one character at a time, and at every single split point.
assert.deepEqual(parse([stream]), expected);
assert.deepEqual(parse([...stream]), expected);
for (let split = 1; split < stream.length; ++split) {
  assert.deepEqual(parse([stream.slice(0, split), stream.slice(split)]), expected, `split at ${split}`);
}

// The same stream with CR LF and with CR line breaks, split between the CR and the LF.
const crlf = stream.replaceAll('\n', '\r\n');
assert.deepEqual(parse([crlf]), expected);
for (let split = 1; split < crlf.length; ++split) {
  assert.deepEqual(parse([crlf.slice(0, split), crlf.slice(split)]), expected, `CR LF split at ${split}`);
}
assert.deepEqual(parse([stream.replaceAll('\n', '\r')]), expected);
// Empty chunks (a character split between reads decodes to none) and a lone LF after a CR change nothing.
assert.deepEqual(parse(['id: a\r', '', '\n', '\ndata: {}\r\n\r\n']), [['id', 'a'], ['frame', 'message', '{}']]);

// An id without data still counts as the last id (a reset's id may stand alone); a frame without data
// dispatches nothing; a retry that is not a number is ignored; a frame not yet ended waits.
assert.deepEqual(parse(['id: 0badf00d-9\n\n', 'retry: soon\n\n', 'event: updated\n\n', 'data: {}']), [['id', '0badf00d-9']]);
// A value keeps everything after the one space that follows the colon; a field without colon is empty.
assert.deepEqual(parse(['data:  two spaces\n\ndata\n\n']), [['frame', 'message', ' two spaces'], ['frame', 'message', '']]);
console.log('event framing test passed');
