// Follows the server-sent events of /events with fetch (so the bearer token can be sent), parses the
// framing, and reconnects after a lost connection, telling the page to re-read everything.

import { authHeaders } from './api.js';

export function follow({ onEvent, onOpen, onClose }) {
  let stopped = false;
  let delay = 500;

  async function connect() {
    while (!stopped) {
      try {
        const reply = await fetch('/events', { headers: { ...authHeaders(), Accept: 'text/event-stream' } });
        if (!reply.ok || !reply.body) throw new Error(`HTTP ${reply.status}`);
        delay = 500;
        onOpen();
        const reader = reply.body.pipeThrough(new TextDecoderStream()).getReader();
        let buffer = '';
        for (;;) {
          const { value, done } = await reader.read();
          if (done) break;
          buffer += value;
          let end;
          while ((end = buffer.indexOf('\n\n')) >= 0) {
            const frame = buffer.slice(0, end);
            buffer = buffer.slice(end + 2);
            const data = frame.split('\n').filter((l) => l.startsWith('data:')).map((l) => l.slice(5).trim()).join('\n');
            if (data) onEvent(JSON.parse(data));
          }
        }
      } catch (error) {
        // fall through to the reconnect below
      }
      onClose();
      await new Promise((resolve) => setTimeout(resolve, delay));
      delay = Math.min(delay * 2, 5000);
    }
  }
  connect();
  return () => { stopped = true; };
}
