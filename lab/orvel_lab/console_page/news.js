// The lab's event stream: opened again whenever it ends, and gone on with where it had been left.

const SILENCE = 25_000; // the lab says something every ten seconds
const RETRY = 1_000;

/** Calls `heard[kind](document)` for each part of the stream, and `heard.link(up)` when the lab comes or goes. */
export function listen(heard) {
  let source;
  let silence;
  let last = ["", 0]; // run and number of the newest event

  const down = () => {
    heard.link(false);
    if (source.readyState === EventSource.CLOSED) setTimeout(open, RETRY);
  };
  const alive = () => {
    clearTimeout(silence);
    silence = setTimeout(() => {
      source.close();
      down();
    }, SILENCE);
  };
  const isNew = (id) => {
    const [run, number] = [id.slice(0, id.indexOf("-")), Number(id.slice(id.indexOf("-") + 1))];
    if (run === last[0] && number <= last[1]) return false;
    last = [run, number];
    return true;
  };

  function open() {
    source = new EventSource("news");
    source.onerror = down;
    for (const kind of ["lab", "devices", "event", "gap"]) {
      source.addEventListener(kind, (event) => {
        alive();
        if (kind === "lab") heard.link(true);
        if (kind !== "event" || isNew(event.lastEventId)) heard[kind](JSON.parse(event.data));
      });
    }
  }

  open();
}

/** Carries out a command; gives {done} or {error}, each with words. */
export async function command(document) {
  try {
    const headers = { "Content-Type": "application/json", "X-Orvel-Lab": "console" };
    const answer = await fetch("command", { method: "POST", headers, body: JSON.stringify(document) });
    return await answer.json();
  } catch {
    return { error: "the lab does not answer" };
  }
}
