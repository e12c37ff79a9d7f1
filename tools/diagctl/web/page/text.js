// Words for values. Anything that a card publishes may be missing (null) or undecodable ({"malformed_bytes": size}).

const MAX_TEXT = 200;
const NOTHING = "–";

export const isMalformed = (value) =>
    value !== null && typeof value === "object" && "malformed_bytes" in value;

// The array, or none where there is something else.
export const listOf = (value) => (Array.isArray(value) ? value : []);

export function malformedText(value) {
    return `malformed (${countText(value.malformed_bytes, "byte")})`;
}

export function valueText(value) {
    if (value === null || value === undefined) {
        return NOTHING;
    }
    if (isMalformed(value)) {
        return malformedText(value);
    }
    if (typeof value === "boolean") {
        return value ? "on" : "off";
    }
    return typeof value === "number" ? numberText(value) : cut(String(value));
}

export function cut(text, length = MAX_TEXT) {
    return text.length > length ? `${text.slice(0, length - 1)}…` : text;
}

const NUMBER = new Intl.NumberFormat("en-GB", { maximumFractionDigits: 1 });

// Counters have 64 bits; what the browser can't hold exactly is marked.
export function numberText(value) {
    return (
        (Number.isSafeInteger(value) || Math.abs(value) < Number.MAX_SAFE_INTEGER ? "" : "≈ ") +
        NUMBER.format(value)
    );
}

export function countText(count, noun, plural = `${noun}s`) {
    return `${numberText(count)} ${count === 1 ? noun : plural}`;
}

const CLOCK = new Intl.DateTimeFormat("en-GB", { hour: "2-digit", minute: "2-digit", second: "2-digit" });
const CLOCK_MINUTES = new Intl.DateTimeFormat("en-GB", { hour: "2-digit", minute: "2-digit" });
const DAY = new Intl.DateTimeFormat("en-GB", { day: "numeric", month: "short", year: "numeric" });

function moment(time) {
    const date = new Date(time);
    return Number.isNaN(date.getTime()) ? null : date;
}

// In the browser's time zone; with the day unless it is the day of `now`.
export function timeText(time, now = Date.now()) {
    const date = moment(time);
    if (!date) {
        return NOTHING;
    }
    const day = DAY.format(date);
    return day === DAY.format(now) ? CLOCK.format(date) : `${day} ${CLOCK.format(date)}`;
}

export function clockText(time, { milliseconds = false } = {}) {
    const date = moment(time);
    if (!date) {
        return NOTHING;
    }
    return CLOCK.format(date) + (milliseconds ? `.${String(date.getMilliseconds()).padStart(3, "0")}` : "");
}

export function minuteText(time) {
    const date = moment(time);
    return date ? CLOCK_MINUTES.format(date) : NOTHING;
}

export function dayText(time) {
    const date = moment(time);
    return date ? DAY.format(date) : NOTHING;
}

export function durationText(seconds) {
    const whole = Math.max(0, Math.floor(seconds));
    const part = (value) => String(value).padStart(2, "0");
    return `${part(Math.floor(whole / 3600))}:${part(Math.floor(whole / 60) % 60)}:${part(whole % 60)}`;
}

// A text that a spreadsheet would take for a formula gets an apostrophe in front.
function csvCell(value) {
    let text = value === null || value === undefined ? "" : String(value);
    if (typeof value === "string" && /^[=+\-@\t\r]/.test(text)) {
        text = `'${text}`;
    }
    return /[",\r\n]/.test(text) ? `"${text.replaceAll('"', '""')}"` : text;
}

export function csv(rows) {
    return rows.map((row) => `${row.map(csvCell).join(",")}\r\n`).join("");
}
