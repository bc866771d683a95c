"use strict";
/* What the other parts share: the elements, the data, requests and messages. */

/* The page's address without a user name and password, because fetch() rejects those. */
const program = location.origin + location.pathname;
const get = (id) => document.getElementById(id);
const isLive = Boolean(get("data"));

/* The answer to "list", and what is derived from it. */
const state = {
    clips: [],
    changes: null, /* what may be changed: null, or {folder, limit} */
    status: {known: false, outputs: [], revision: ""},
    statusTime: 0, /* when `status` arrived, on the browser's clock */
    away: "", /* why the daemon cannot be reached; empty if it can */
};

const setText = (element, text) => {
    /* Leaves an unchanged text alone, so that screen readers do not repeat it. */
    if (element.textContent !== text) {
        element.textContent = text;
    }
};

const make = (tag, properties = {}, ...children) => {
    const element = Object.assign(document.createElement(tag), properties);
    element.append(...children);
    return element;
};

const titleOf = (clip) => clip.name || `Clip ${clip.number}`;
const locationOf = (clip) => clip.location ?? `/etc/audioclips/${clip.file}`;
const formatTime = (ms) => {
    const seconds = Math.max(0, Math.round(ms / 1000));
    const parts = [Math.floor(seconds / 60) % 60, seconds % 60].map((part) => String(part).padStart(2, "0"));
    return seconds >= 3600 ? `${Math.floor(seconds / 3600)}:${parts.join(":")}` : parts.join(":").replace(/^0/, "");
};
const formatLength = (ms) => ms < 1000 ? `${Math.max(0.1, ms / 1000).toFixed(1)} s` : formatTime(ms);
const formatSize = (bytes) => bytes < 1048576 ? `${Math.ceil(bytes / 1024)} KiB` : `${Math.round(bytes / 104857.6) / 10} MiB`;

/* Returns the text of an answer. The web server's own error pages are HTML and are not shown. */
const explain = (type, text, status) => (type || "").startsWith("text/plain") ? text.trim()
    : status === 413 ? "The web server does not accept a file of this size."
    : `The web server returned status ${status}.`;
const UNREACHABLE = "The device is not responding.";
const UNREACHABLE_STATUS = [0, 503, 504];

/* Sends a request. Returns whether it succeeded, and the text of the answer or its JSON. */
const request = async (method, fields) => {
    const values = new URLSearchParams(fields);
    try {
        const answer = method === "GET" ? await fetch(`${program}?${values}`)
            : await fetch(program, {method, body: values});
        const type = answer.headers.get("Content-Type");
        if (answer.ok && type === "application/json") {
            return {ok: true, data: await answer.json()};
        }
        return {ok: answer.ok, status: answer.status, text: explain(type, await answer.text(), answer.status)};
    } catch {
        return {ok: false, status: 0, text: UNREACHABLE};
    }
};

/*
 * What plays and the message stay visible while the page scrolls. If both need more than half of the
 * screen, as with large text, the message alone does, or nothing. Their texts are cut after two
 * lines; one that is cut can be focused, which shows the whole text.
 */
const SCREEN_PART = 0.5; /* the largest part of its height that they cover */
let covered = 0; /* px at the top of the screen that are not free for the list */
const fitTop = () => {
    const top = get("now").parentElement;
    const root = document.documentElement;
    const focused = document.activeElement ?? document.body;
    const texts = [get("now-text"), get("result")];
    const message = get("result").offsetHeight;
    const heights = {all: get("now").offsetHeight + message, message, none: 0};
    if (!texts.includes(focused)) {
        top.dataset.sticky = Object.keys(heights).find((kind) => heights[kind] <= innerHeight * SCREEN_PART);
        for (const text of texts) {
            if (text.scrollHeight > text.clientHeight + 1) {
                text.tabIndex = 0;
            } else {
                text.removeAttribute("tabindex");
            }
        }
    }
    const old = covered;
    root.style.scrollPaddingTop = `calc(${heights[top.dataset.sticky]}px + 1.5rem)`; /* with margins and outline */
    covered = parseFloat(getComputedStyle(root).scrollPaddingTop);
    /* It may have grown over the element that the user has just pressed. */
    const place = focused.getBoundingClientRect();
    if (covered > old && place.bottom > old && place.top < covered && !focused.matches("body, .top *, dialog *")) {
        focused.scrollIntoView({block: "nearest"});
    }
};
const setupTop = () => {
    const observer = new ResizeObserver(fitTop);
    observer.observe(get("now"));
    observer.observe(get("result"));
    addEventListener("resize", fitTop);
};

/*
 * The message under "Now playing". With each new status, `isTrue` returns whether the message still
 * applies. Messages also disappear after a while, because they cover a part of the list.
 */
const MESSAGE_PERIODS = {good: 10000, bad: 60000, busy: 0}; /* ms; 0: stays until the next message */
const message = {isTrue: null, timer: 0};
const showMessage = (text, kind = "good", isTrue = null) => {
    const element = get("result");
    clearTimeout(message.timer);
    message.isTrue = isTrue;
    setText(element, text);
    element.classList.toggle("bad", kind === "bad");
    element.classList.toggle("busy", kind === "busy");
    message.timer = text && MESSAGE_PERIODS[kind] ? setTimeout(() => showMessage(""), MESSAGE_PERIODS[kind]) : 0;
};
const checkMessage = () => {
    if (message.isTrue && !message.isTrue()) {
        showMessage("");
    }
};

/* Returns whether the message about a failure still applies, as a function, or null if that does not
 * change. The message that the daemon cannot be reached disappears when it answers again, but stays
 * long enough to be read. */
const watchFailure = (answer) => {
    const readUntil = performance.now() + 4000;
    return UNREACHABLE_STATUS.includes(answer.status) ? () => state.away || performance.now() < readUntil : null;
};

/* Shows why an action failed. */
const showFailure = (answer, isTrue = null) => showMessage(answer.text, "bad", watchFailure(answer) ?? isTrue);
