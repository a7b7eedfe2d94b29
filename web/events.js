// Follows the server-sent events of /events with fetch (so the bearer token and Last-Event-ID can be
// sent), parses the framing, and reconnects after a lost connection. A reconnection names the last event
// seen, so the service replays what was missed; only when it cannot (it answers with a "reset" event, or
// no event was seen yet) must the page re-read everything.

import { authHeaders } from './api.js';

// The wait before reconnecting when the service gave no "retry:" hint; doubled after each failed attempt
// up to MAX_DELAY, so a service that is down is not hammered.
const FIRST_DELAY = 500;
const MAX_DELAY = 30000;

// Splits a stream into frames and dispatches them as the event-stream format says: "id:" sets the last
// event id (also for a frame without data), "retry:" the reconnection delay, "data:" lines join with a
// line break, a frame without data dispatches nothing.
export class FrameParser {
  constructor({ onFrame, onId, onRetry }) {
    Object.assign(this, { onFrame, onId, onRetry, buffer: '', carriageReturn: false });
  }

  push(chunk) {
    // Line breaks may be CR LF, CR or LF. A CR that ends a chunk ends its line at once; an LF that
    // starts the next chunk belongs to it and is not a second break.
    if (!chunk) return;
    const text = this.carriageReturn && chunk.startsWith('\n') ? chunk.slice(1) : chunk;
    this.carriageReturn = text.endsWith('\r');
    this.buffer += text.replace(/\r\n?/g, '\n');
    let end;
    while ((end = this.buffer.indexOf('\n\n')) >= 0) {
      const frame = this.buffer.slice(0, end);
      this.buffer = this.buffer.slice(end + 2);
      this.dispatch(frame);
    }
  }

  dispatch(frame) {
    let type = 'message';
    const data = [];
    for (const line of frame.split('\n')) {
      if (line.startsWith(':')) continue;
      const colon = line.indexOf(':');
      const name = colon < 0 ? line : line.slice(0, colon);
      let value = colon < 0 ? '' : line.slice(colon + 1);
      if (value.startsWith(' ')) value = value.slice(1);
      if (name === 'data') data.push(value);
      else if (name === 'event') type = value;
      else if (name === 'id' && !value.includes('\0')) this.onId(value);
      else if (name === 'retry' && /^\d+$/.test(value)) this.onRetry(Number(value));
    }
    if (data.length) this.onFrame(type, data.join('\n'));
  }
}

// onOpen(resumed): the stream is live; resumed tells that it continues where the last one stopped, so
// nothing needs re-reading. onEvent(data): a parsed event; a "reset" arrives as { type: "reset" }.
// Returns a function that stops following.
export function follow({ onEvent, onOpen, onClose }) {
  let stopped = false;
  let lastEventId = '';
  let retry = FIRST_DELAY;
  let delay = FIRST_DELAY;
  let connection = null;  // the AbortController of the current request

  async function connect() {
    while (!stopped) {
      connection = new AbortController();
      try {
        const headers = { ...authHeaders(), Accept: 'text/event-stream' };
        const resuming = lastEventId !== '';
        if (resuming) headers['Last-Event-ID'] = lastEventId;
        const reply = await fetch('/events', { headers, signal: connection.signal, cache: 'no-store' });
        if (!reply.ok || !reply.body) throw new Error(`HTTP ${reply.status}`);
        delay = retry;
        onOpen(resuming);
        const parser = new FrameParser({
          onId: (id) => { lastEventId = id; },
          onRetry: (milliseconds) => { retry = Math.min(milliseconds, MAX_DELAY); delay = retry; },
          onFrame: (type, data) => {
            let event;
            try { event = JSON.parse(data); } catch { return; }  // not ours to show; keep the stream
            onEvent({ ...event, type: event?.type ?? type });
          },
        });
        const reader = reply.body.pipeThrough(new TextDecoderStream()).getReader();
        for (;;) {
          const { value, done } = await reader.read();
          if (done) break;
          parser.push(value);
        }
      } catch {
        // fall through to the reconnect below
      }
      if (stopped) break;
      onClose();
      await new Promise((resolve) => setTimeout(resolve, delay));
      delay = Math.min(delay * 2, MAX_DELAY);
    }
  }
  connect();
  return () => { stopped = true; connection?.abort(); };
}
