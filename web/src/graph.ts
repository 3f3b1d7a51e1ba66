// Where the lines of a graph go: what comes in above the middle line, what goes out below it.

export interface Frame {
  width: number
  height: number
  start: number // seconds at the left edge
  end: number
  above: number // the largest rates that there is room for
  below: number
}
const LEFT = 84
const RIGHT = 10
const TOP = 8
const BOTTOM = 26
const LEAST = 1024 // bytes a second that there is always room for
const HEADROOM = 1.1
const LINES = 3 // on each side, at most
const TIMES = [10, 30, 60, 300, 600, 900, 1800, 3600, 10_800, 21_600] // seconds between marks
const MARK = 90 // pixels that a time takes
const GAP = 4 // steps without a sample after which a line begins again

const most = (columns: readonly (readonly number[])[], first: number): number =>
  Math.max(LEAST, ...columns.flatMap(column => column.slice(first))) * HEADROOM

// The frame of the samples of the last `span` seconds; `points` are times, then the columns in, then those out.
export function frameOf(
  points: readonly (readonly number[])[],
  shown: readonly boolean[],
  span: number,
  width: number,
  height: number,
): Frame {
  const times = points[0] ?? []
  const end = times[times.length - 1] ?? 0
  const first = Math.max(
    0,
    times.findIndex(time => time >= end - span),
  )
  const side = (from: number) =>
    most(
      points.slice(from, from + shown.length).filter((_, at) => shown[at]),
      first,
    )
  return { width, height, start: end - span, end, above: side(1), below: side(1 + shown.length) }
}

export const xOf = ({ width, start, end }: Frame, time: number): number =>
  LEFT + ((time - start) / Math.max(1, end - start)) * (width - LEFT - RIGHT)
// Of a rate that is negative for what goes out.
export function yOf({ height, above, below }: Frame, rate: number): number {
  return TOP + ((above - rate) / (above + below)) * (height - TOP - BOTTOM)
}

// The path of one curve; one that lacks samples for a time begins again after it.
export function pathOf(
  frame: Frame,
  times: readonly number[],
  rates: readonly number[],
  sign: 1 | -1,
): string {
  const usual =
    times.length > 1
      ? Math.max(1, ((times[times.length - 1] ?? 0) - (times[0] ?? 0)) / (times.length - 1))
      : 1
  let out = ''
  let before = -Infinity
  times.forEach((time, at) => {
    if (time < frame.start) return
    const place = `${xOf(frame, time).toFixed(1)} ${yOf(frame, sign * (rates[at] ?? 0)).toFixed(1)}`
    out += (time - before > GAP * usual ? 'M' : 'L') + place
    before = time
  })
  return out
}

// Rates at which there is a line: round ones of `units`, such as 1024 bytes or 125 bytes (a kilobit).
export function rateMarks({ above, below }: Frame, inBits: boolean): number[] {
  const factors = inBits ? [1, 2, 5] : [1, 2, 4, 8, 16, 32, 64, 128, 256, 512]
  const [base, step] = inBits ? [12.5, 10] : [1, 1024]
  let unit = 0
  const larger = Math.max(above, below)
  for (let power = base; unit === 0; power *= step)
    unit = factors.map(one => one * power).find(one => larger / one < LINES + 1) ?? 0
  const out: number[] = []
  for (let at = -LINES; at <= LINES; ++at)
    if (at * unit <= above && at * unit >= -below) out.push(at * unit)
  return out
}

// Times at which there is a mark: round ones, as many as there is room for.
export function timeMarks({ width, start, end }: Frame): number[] {
  const room = Math.max(1, Math.floor((width - LEFT - RIGHT) / MARK))
  const step = TIMES.find(one => (end - start) / one <= room) ?? 43_200
  const offset = new Date(end * 1000).getTimezoneOffset() * 60 // so that hours are those of the clock
  const out: number[] = []
  for (let time = Math.ceil((start - offset) / step) * step + offset; time <= end; time += step)
    out.push(time)
  return out
}

// The sample nearest to a place; null without any.
export function sampleAt(frame: Frame, times: readonly number[], x: number): number | null {
  const time =
    frame.start + ((x - LEFT) / Math.max(1, frame.width - LEFT - RIGHT)) * (frame.end - frame.start)
  let best: number | null = null
  times.forEach((one, at) => {
    if (
      one >= frame.start &&
      (best === null || Math.abs(one - time) < Math.abs((times[best] ?? 0) - time))
    )
      best = at
  })
  return best
}
export const EDGES = { left: LEFT, right: RIGHT, top: TOP, bottom: BOTTOM }
