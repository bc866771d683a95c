/* What plays, and the options for the next play. */

const listPlaying = () => state.status.outputs.filter((output) => output.playing);
const findPlaying = () => listPlaying()[0];
const findClip = (file) => state.clips.find((clip) => locationOf(clip) === file);

/* Returns for how long the clip has been playing, in ms, or -1 if it is not known. */
const measureElapsed = (output) => output.elapsed === undefined ? -1
    : output.elapsed + performance.now() - state.statusTime;

const nameOutput = (output) => output.name
    ? `${output.name} (output ${output.output}${output.unplugged ? ", unplugged" : ""})` : `output ${output.output}`;

const describePlaying = (output) => {
    const clip = findClip(output.file);
    const name = clip ? titleOf(clip) : output.file.split("/").pop();
    const isOneOfMany = state.status.outputs.length > 1;
    return `${name} is playing${isOneOfMany ? ` on ${nameOutput(output)}` : ""}.`;
};

const showProgress = () => {
    const output = state.away ? null : findPlaying();
    const clip = output && findClip(output.file);
    const elapsed = output ? measureElapsed(output) : -1;
    const isKnown = Boolean(clip && clip.length > 0 && elapsed >= 0);
    get("progress").hidden = !isKnown;
    if (isKnown) {
        get("progress").max = clip.length;
        get("progress").value = Math.min(elapsed, clip.length);
    }
    setText(get("now-detail"), isKnown ? `${formatTime(clip.length - elapsed)} left of ${formatTime(clip.length)}`
        : elapsed >= 0 ? `for ${formatTime(elapsed)}` : "");
};

const showPlaying = () => {
    const playing = state.away ? [] : listPlaying();
    get("now").classList.toggle("playing", playing.length > 0);
    setText(get("now-text"), state.away || playing.map(describePlaying).join(" ")
        || (state.status.known ? "Nothing is playing." : "This device does not report what is playing."));
    get("stop").disabled = Boolean(state.away) || (state.status.known && !playing.length);
    showProgress();
};

/* The options are kept by the browser, so that each user has their own. */
const OPTIONS = ["volume", "output", "repeat"];
const remember = (key, value) => {
    try {
        localStorage.setItem(`sonobrik-${key}`, value);
    } catch {
        /* Some browsers refuse to store anything; the options then last as long as the page. */
    }
};
const recall = (key) => {
    try {
        return localStorage.getItem(`sonobrik-${key}`);
    } catch {
        return null;
    }
};

const showOptions = () => {
    const volume = Number(get("volume").value);
    const chosen = (id) => get(id).selectedOptions[0].textContent;
    get("slider").value = Math.min(volume, 100);
    setText(get("loud"), volume > 100
        ? "Above 100 % the sound is distorted, and may damage ears and loudspeakers." : "");
    setText(get("options-text"), `volume ${volume} %, ${get("output").value ? `${chosen("output")}, ` : ""}${chosen("repeat")}`);
};

const MAX_OUTPUT = 5;
let shownOutputs = ""; /* the texts of the choices, as JSON */

/* Follows outputs that come and go. A chosen one stays, so that no clip plays elsewhere unnoticed. */
const showOutputs = () => {
    const list = get("output");
    const outputs = state.status.outputs.filter((output) => output.output <= MAX_OUTPUT);
    const texts = JSON.stringify(outputs.map(nameOutput));
    if (!state.status.known || texts === shownOutputs) {
        return;
    }
    shownOutputs = texts;
    const chosen = list.selectedOptions[0];
    const options = outputs.map((output) => new Option(nameOutput(output), output.output));
    list.replaceChildren(list.options[0], ...options);
    if (chosen.value && !options.some((option) => option.value === chosen.value)) {
        list.append(chosen);
    }
    list.value = chosen.value;
    options.forEach((option, i) => option.disabled = Boolean(outputs[i].unplugged) && !option.selected);
    showOptions();
};

const setupOptions = () => {
    const given = new URLSearchParams(location.search);
    for (const id of OPTIONS) {
        const element = get(id);
        const old = element.value;
        const kept = given.has(id === "output" ? "audiooutput" : id) ? null : recall(id);
        if (kept !== null) {
            element.value = kept;
            if (element.selectedIndex === -1 || !element.checkValidity()) {
                element.value = old; /* such as an output that no longer exists */
            }
        }
        const note = () => {
            showOptions();
            if (element.checkValidity()) {
                remember(id, element.value);
            }
        };
        element.addEventListener("input", note);
        element.addEventListener("change", note);
    }
    get("slider").addEventListener("input", () => {
        get("volume").value = get("slider").value;
        get("volume").dispatchEvent(new Event("input"));
    });
    const folded = recall("options");
    get("options").open = folded === null ? matchMedia("(min-width: 34.01rem)").matches : folded === "open";
    /* The click comes before the change. It also comes from the keyboard. */
    get("options").querySelector("summary").addEventListener("click", () => remember("options", get("options").open ? "closed" : "open"));
    showOptions();
};

const play = async (clip) => {
    if (!get("volume").reportValidity()) {
        return;
    }
    const isInstead = listPlaying().length > 0;
    const answer = await request("POST", {
        action: "play", clip: clip.number, volume: get("volume").value, repeat: get("repeat").value,
        audiooutput: get("output").value, instead: isInstead ? 1 : 0});
    const isPlaying = () => listPlaying().some((output) => output.file === locationOf(clip));
    await refresh();
    if (answer.ok) {
        /* A short clip may be over before the first status. */
        showMessage(`Started ${titleOf(clip)}.`, false, state.status.known ? isPlaying : null);
        checkMessage();
    } else {
        showMessage(answer.text, true, answer.status === 409 ? () => listPlaying().length > 0 : null);
    }
};

const stop = async () => {
    const answer = await request("POST", {action: "stop"});
    await refresh();
    showMessage(answer.text, !answer.ok, answer.ok ? () => listPlaying().length === 0 : null);
};
