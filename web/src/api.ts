// Every request to the appliance goes through here: forms by POST, the session in the form and never in an address,
// JSON back. What comes back is either the whole envelope without an error, or one `ApiError`.
import { signal } from '@preact/signals'
import { session } from './session'

export type FailureKind = 'code' | 'network' | 'timeout' | 'http' | 'format'

export class ApiError extends Error {
  constructor(
    readonly kind: FailureKind,
    readonly code: number, // the program's code, or the HTTP status
    readonly reason: string, // the program's own words
    readonly data?: unknown,
    readonly status = 0, // of the HTTP answer
    readonly wait = 0, // seconds until it may be tried again, if the answer says so
  ) {
    super(`${kind} ${code} ${reason}`)
  }
}

export const SESSION_INVALID = 39
const QUICK = 20_000 // milliseconds that a question may take
export const SLOW = 155_000 // and one that starts tunnels or asks the cloud; the web server gives up at 150 s

export type Value = string | number | boolean | Blob | undefined
export type Form = Record<string, Value | readonly Value[]>
export interface Envelope<T> {
  error: number
  reason?: string
  data: T
  total?: number
}

// The host has no room for settings, or may not write them: every answer says so in a header until it can.
export const unsaved = signal(false)
// No copy of the settings could be made before the last change, so that it cannot be taken back.
export const undoLost = signal(false)

function encode(form: Form): FormData | URLSearchParams {
  const pairs = Object.entries(form).flatMap(([name, value]) =>
    (Array.isArray(value) ? value : [value as Value]).map((one): [string, Value] => [name, one]),
  )
  const uploads = pairs.some(([, value]) => value instanceof Blob)
  const out = uploads ? new FormData() : new URLSearchParams()
  for (const [name, value] of pairs) {
    if (value === undefined) continue
    if (value instanceof File) (out as FormData).append(name, value, value.name)
    else if (value instanceof Blob) (out as FormData).append(name, value, name)
    else out.append(name, String(value))
  }
  return out
}

async function send(path: string, form: Form, timeout: number): Promise<Response> {
  const stop = AbortSignal.timeout(timeout)
  try {
    const answer = await fetch(path, {
      method: 'POST',
      body: encode(form),
      headers: { Accept: 'application/json' },
      credentials: 'omit',
      cache: 'no-store',
      signal: stop,
    })
    if (path.startsWith('/ormel/'))
      unsaved.value = answer.headers.get('X-Ormel-Settings') === 'unsaved'
    if (answer.headers.get('X-Ormel-Undo') === 'none') undoLost.value = true
    return answer
  } catch {
    throw new ApiError(stop.aborted ? 'timeout' : 'network', 0, '')
  }
}

async function envelope<T>(response: Response): Promise<Envelope<T>> {
  let text: string
  try {
    text = await response.text()
  } catch {
    throw new ApiError('network', 0, '')
  }
  let parsed: unknown
  try {
    parsed = JSON.parse(text)
  } catch {
    parsed = null
  }
  const found = parsed as Envelope<T> | null
  if (typeof found !== 'object' || found === null || typeof found.error !== 'number')
    throw response.ok ? new ApiError('format', 0, '') : new ApiError('http', response.status, '')
  const wait = Number(response.headers.get('Retry-After') ?? 0) || 0
  if (found.error !== 0)
    throw new ApiError(
      'code',
      found.error,
      String(found.reason ?? ''),
      found.data,
      response.status,
      wait,
    )
  if (!response.ok) throw new ApiError('http', response.status, '')
  return found
}

// Login and logout, which need no session and must not wait for one.
export async function callOnce<T>(path: string, form: Form): Promise<T> {
  return (await envelope<never>(await send(path, form, QUICK))) as T
}

// One request with the session. One that has run out is renewed by the user meanwhile, and the request sent again.
async function inSession<T>(
  route: string,
  form: Form,
  timeout: number,
  read: (answer: Response) => Promise<T>,
): Promise<T> {
  const sid = session.sid.peek()
  const ask = async (id: string) =>
    read(await send(`/ormel/${route}`, { sid: id, ...form }, timeout))
  try {
    return await ask(sid)
  } catch (failure) {
    if (
      !(failure instanceof ApiError) ||
      failure.kind !== 'code' ||
      failure.code !== SESSION_INVALID
    )
      throw failure
    await session.renewed(sid)
    return ask(session.sid.peek()) // who is refused with a new session as well is no administrator any more
  }
}

// One route of the program.
export const call = async <T = unknown>(
  route: string,
  form: Form = {},
  timeout = QUICK,
): Promise<Envelope<T>> => inSession(route, form, timeout, envelope<T>)

export const data = async <T>(route: string, form: Form = {}, timeout = QUICK): Promise<T> =>
  (await call<T>(route, form, timeout)).data

// A route that answers with its own page.
export const pageOf = async (route: string, form: Form): Promise<string> =>
  inSession(route, form, SLOW, async answer => {
    if (answer.headers.get('Content-Type')?.startsWith('text/html')) return answer.text()
    await envelope(answer) // tells why there is none
    throw new ApiError('format', 0, '')
  })

// One of the interface's own files that only some builds have; null without it.
export const asset = async <T>(name: string): Promise<T | null> =>
  fetch(`/assets/${name}`, { credentials: 'omit' }).then(
    async answer => (answer.ok ? ((await answer.json()) as T) : null),
    () => null,
  )

// A file that a route sends; its name is what the program says.
export const download = async (
  route: string,
  fallbackName: string,
  form: Form = {},
): Promise<{ name: string; content: Blob }> =>
  inSession(route, form, SLOW, async answer => {
    const disposition = answer.headers.get('Content-Disposition')
    if (!disposition) {
      await envelope(answer) // tells why there is none
      throw new ApiError('format', 0, '')
    }
    return {
      name: /filename=([\w.-]+)/.exec(disposition)?.[1] ?? fallbackName,
      content: await answer.blob(),
    }
  })

export function saveFile(name: string, content: Blob): void {
  const address = URL.createObjectURL(content)
  const link = document.createElement('a')
  link.href = address
  link.download = name
  link.click()
  setTimeout(() => URL.revokeObjectURL(address), 10_000)
}
