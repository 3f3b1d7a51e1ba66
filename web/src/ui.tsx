// The small parts that all pages are made of.
import { signal } from '@preact/signals'
import { isValidElement, type ComponentChildren, type JSX } from 'preact'
import { useEffect, useId, useRef, useState } from 'preact/hooks'
import { explain } from './errors'
import { language, languages, setLanguage, t, type Language, type TextKey } from './texts'

// Lines of a 24 by 24 grid.
const ICONS = {
  overview: 'M3 13h7V3H3zM14 21h7V11h-7zM14 7h7V3h-7zM3 21h7v-4H3z',
  server: 'M4 4h16v6H4zM4 14h16v6H4zM8 7h.01M8 17h.01',
  client: 'M5 12a7 7 0 0 1 7-7M5 12a7 7 0 0 0 7 7M12 5l7 7-7 7M9 12h10',
  connections:
    'M9 7a3 3 0 1 0 0 .01M3 20v-1a6 6 0 0 1 12 0v1M16 4.5a3 3 0 0 1 0 5M18 14a6 6 0 0 1 3 5v1',
  rights: 'M12 3l8 3v6c0 5-3.4 8-8 9-4.6-1-8-4-8-9V6zM9 12l2 2 4-4',
  logs: 'M6 3h9l4 4v14H6zM14 3v5h5M9 13h7M9 17h7',
  gateway: 'M4 12h4l3-7 3 14 3-7h3',
  cloud: 'M7 18a4 4 0 0 1-.6-7.96 6 6 0 0 1 11.4 1.2A3.5 3.5 0 0 1 17.5 18z',
  menu: 'M4 6h16M4 12h16M4 18h16',
  close: 'M6 6l12 12M18 6L6 18',
  plus: 'M12 5v14M5 12h14',
  logout: 'M15 4h4v16h-4M10 16l-4-4 4-4M6 12h9',
  download: 'M12 4v11M7 11l5 5 5-5M4 20h16',
  upload: 'M12 16V5M7 9l5-5 5 5M4 20h16',
  warning: 'M12 4l9 16H3zM12 10v4M12 17h.01',
  check: 'M5 12l5 5 9-10',
  bell: 'M6 17v-6a6 6 0 0 1 12 0v6l2 2H4zM10 21h4',
  key: 'M14 10a4 4 0 1 0-3 3l1 1h2v2h2v2h4v-4zM8.5 8.5h.01',
  user: 'M12 12a4 4 0 1 0 0-8 4 4 0 0 0 0 8M4 21v-1a8 8 0 0 1 16 0v1',
} as const
export type IconName = keyof typeof ICONS

export const Icon = ({ name }: { name: IconName }) => (
  <svg class="icon" viewBox="0 0 24 24" aria-hidden="true">
    <path d={ICONS[name]} />
  </svg>
)

// A quiet one has words that change all the time, which nobody wants to hear again and again.
export const Spinner = ({ label, quiet }: { label?: string; quiet?: boolean }) => (
  <span class="spinner" role={quiet ? undefined : 'status'}>
    <span class="ring" aria-hidden="true" />
    <span class={label ? '' : 'unseen'}>{label ?? t('wait')}</span>
  </span>
)

type ButtonProps = {
  onClick?: (() => void) | undefined
  kind?: 'primary' | 'plain' | 'danger' | 'quiet'
  busy?: boolean | undefined
  disabled?: boolean | undefined
  icon?: IconName
  label?: string // for one that shows no words, or too few
  submit?: boolean
  first?: boolean // has the focus when its dialog opens
  children?: ComponentChildren
}
export const Button = ({
  onClick,
  kind = 'plain',
  busy,
  disabled,
  icon,
  label,
  submit,
  first,
  children,
}: ButtonProps) => (
  <button
    type={submit ? 'submit' : 'button'}
    class={`button ${kind}`}
    onClick={event => (busy ? event.preventDefault() : onClick?.())}
    disabled={disabled}
    aria-disabled={busy ? 'true' : undefined} // and not off, which would take the focus away
    aria-busy={busy ? 'true' : undefined}
    aria-label={label}
    title={label}
    data-first={first}
  >
    {busy ? <span class="ring" aria-hidden="true" /> : icon && <Icon name={icon} />}
    {children}
  </button>
)

export const LanguageChoice = () => (
  <Field label={t('account.language')}>
    {ids => (
      <select
        {...ids}
        value={language.value}
        onChange={event => void setLanguage(event.currentTarget.value as Language)}
      >
        {languages.map(one => (
          <option key={one.id} value={one.id} lang={one.id}>
            {one.name}
          </option>
        ))}
      </select>
    )}
  </Field>
)

export const Card = ({
  title,
  side,
  children,
}: {
  title?: string
  side?: ComponentChildren
  children: ComponentChildren
}) => (
  <section class="card" aria-label={title}>
    {(title || side) && (
      <header>
        {title && <h2>{title}</h2>}
        {side && <div class="side">{side}</div>}
      </header>
    )}
    {children}
  </section>
)

export type Tone = 'good' | 'bad' | 'busy' | 'off' | 'warn'
export const Badge = ({ tone, children }: { tone: Tone; children: ComponentChildren }) => (
  <span class={`badge ${tone}`}>{children}</span>
)

export const Notice = ({
  tone = 'warn',
  children,
}: {
  tone?: Tone
  children: ComponentChildren
}) => (
  <div class={`notice ${tone}`} role={tone === 'bad' ? 'alert' : undefined}>
    <Icon name={tone === 'good' ? 'check' : 'warning'} />
    <div>{children}</div>
  </div>
)

export function Failure({ failure, onRetry }: { failure: unknown; onRetry?: () => void }) {
  if (!failure) return null
  const { what, advice, detail } = explain(failure)
  return (
    <Notice tone="bad">
      <strong>{what}</strong>
      {advice && <span>{advice}</span>}
      {detail && <small class="soft">{detail}</small>}
      {onRetry && (
        <div class="row">
          <Button onClick={onRetry}>{t('retry')}</Button>
        </div>
      )}
    </Notice>
  )
}

export const Empty = ({ children }: { children: ComponentChildren }) => (
  <p class="empty">{children}</p>
)

export const Facts = ({ rows }: { rows: readonly (readonly [string, ComponentChildren])[] }) => (
  <dl class="facts">
    {rows.map(([name, value]) => (
      <div key={name}>
        <dt>{name}</dt>
        <dd>{value === '' || value === undefined || value === null ? '–' : value}</dd>
      </div>
    ))}
  </dl>
)

// How the column of a head is sorted, for those who do not see the arrow.
function sortedBy(head: ComponentChildren): 'ascending' | 'descending' | undefined {
  if (!isValidElement(head) || head.type !== SortHead) return undefined
  const { active, down } = head.props as { active?: boolean; down?: boolean }
  return active ? (down ? 'descending' : 'ascending') : undefined
}

export type TableProps = { label: string; heads: ComponentChildren[]; children: ComponentChildren }
export const Table = ({ label, heads, children }: TableProps) => (
  <div class="scroller" tabIndex={0} role="group" aria-label={label}>
    <table>
      <caption class="unseen">{label}</caption>
      <thead>
        <tr>
          {heads.map((head, at) => (
            <th key={at} scope="col" aria-sort={sortedBy(head)}>
              {head}
            </th>
          ))}
        </tr>
      </thead>
      <tbody>{children}</tbody>
    </table>
  </div>
)

// A head that sorts by its column.
export const SortHead = ({
  children,
  active,
  down,
  onClick,
}: {
  children: ComponentChildren
  active: boolean
  down: boolean
  onClick: () => void
}) => (
  <button type="button" class="sort" onClick={onClick}>
    {children}
    <span aria-hidden="true">{active ? (down ? ' ↓' : ' ↑') : ''}</span>
  </button>
)

export function Tabs<T extends string>({
  label,
  names,
  current,
  onPick,
}: {
  label: string
  names: readonly (readonly [T, string])[]
  current: T
  onPick: (name: T) => void
}) {
  return (
    <div class="tabs" role="group" aria-label={label}>
      {names.map(([name, text]) => (
        <button
          key={name}
          type="button"
          aria-pressed={name === current}
          onClick={() => onPick(name)}
        >
          {text}
        </button>
      ))}
    </div>
  )
}

type FieldProps = {
  label: string
  help?: string | undefined
  error?: string | null | undefined
  children: (ids: {
    id: string
    'aria-describedby': string | undefined
    'aria-invalid': boolean
  }) => JSX.Element
}
export function Field({ label, help, error, children }: FieldProps) {
  const id = useId()
  const described = [help && `${id}-help`, error && `${id}-error`].filter(Boolean).join(' ')
  return (
    <div class="field">
      <label for={id}>{label}</label>
      {children({ id, 'aria-describedby': described || undefined, 'aria-invalid': Boolean(error) })}
      {error && (
        <p class="error" id={`${id}-error`}>
          {error}
        </p>
      )}
      {help && (
        <p class="help" id={`${id}-help`}>
          {help}
        </p>
      )}
    </div>
  )
}

export const Switch = ({
  label,
  on,
  onChange,
  help,
  disabled,
  wide,
}: {
  label: string
  on: boolean
  onChange: (on: boolean) => void
  help?: string | undefined
  disabled?: boolean
  wide?: boolean | undefined
}) => {
  const id = useId()
  return (
    <div class={wide ? 'field switch wide' : 'field switch'}>
      <input
        id={id}
        type="checkbox"
        role="switch"
        checked={on}
        disabled={disabled}
        aria-describedby={help ? `${id}-help` : undefined}
        onChange={event => onChange(event.currentTarget.checked)}
      />
      <label for={id}>{label}</label>
      {help && (
        <p class="help" id={`${id}-help`}>
          {help}
        </p>
      )}
    </div>
  )
}

// Forms whose input has not been saved, so that nobody leaves them by mistake.
export const touched = new Set<object>()
export function useTouched(changed: boolean): void {
  const self = useRef({}).current
  useEffect(() => {
    if (changed) touched.add(self)
    else touched.delete(self)
    return () => void touched.delete(self)
  }, [changed])
}
const leave = async (): Promise<boolean> =>
  confirm({ title: t('leave.title'), text: t('leave.text'), action: t('leave.go'), danger: true })

// Whether the page may be left: asks if that loses what has been typed.
export async function mayLeave(): Promise<boolean> {
  if (touched.size > 0 && !(await leave())) return false
  touched.clear()
  return true
}

const FIRST_FIELD = 'input:not([readonly]), select, textarea'

// The browser's own dialog: it holds the focus, makes the rest inert and closes with Escape. The first field has the
// focus, or the button that says so; what had it before gets it back.
export function Dialog({
  title,
  onClose,
  wide,
  children,
}: {
  title: string
  onClose?: () => void
  wide?: boolean
  children: ComponentChildren
}) {
  const box = useRef<HTMLDialogElement>(null)
  const id = useId()
  useEffect(() => {
    const before = document.activeElement as HTMLElement | null
    const shown = box.current
    shown?.showModal()
    const first =
      shown?.querySelector<HTMLElement>('[data-first]') ??
      shown?.querySelector<HTMLElement>(FIRST_FIELD)
    first?.focus()
    return () => {
      shown?.close() // what is below takes no focus while this is open
      before?.focus?.()
    }
  }, [])
  const below = useRef(new Set(touched)).current // forms of the page itself
  const dismiss = async () => {
    const loses = [...touched].some(form => !below.has(form))
    if (!loses || (await leave())) onClose?.()
  }
  return (
    <dialog
      ref={box}
      class={wide ? 'wide' : ''}
      aria-labelledby={id}
      onCancel={event => {
        event.preventDefault()
        void dismiss()
      }}
    >
      <header>
        <h2 id={id}>{title}</h2>
        {onClose && (
          <Button kind="quiet" icon="close" label={t('close')} onClick={() => void dismiss()} />
        )}
      </header>
      {children}
      <Sayings />
    </dialog>
  )
}

type Question = {
  title: string
  text: string
  action: string
  danger?: boolean
  more?: readonly string[]
}
const question = signal<(Question & { answer: (yes: boolean) => void }) | null>(null)

// Asks the user; true for a yes.
export const confirm = (what: Question): Promise<boolean> =>
  new Promise(answer => {
    question.value = { ...what, answer }
  })

export function Questions() {
  const asked = question.value
  if (!asked) return null
  const answer = (yes: boolean) => {
    question.value = null
    asked.answer(yes)
  }
  return (
    <Dialog title={asked.title} onClose={() => answer(false)}>
      <p>{asked.text}</p>
      {asked.more && asked.more.length > 0 && (
        <ul class="changes">
          {asked.more.map(line => (
            <li key={line}>
              <bdi>{line}</bdi>
            </li>
          ))}
        </ul>
      )}
      <footer class="row end">
        <Button first onClick={() => answer(false)}>
          {t('cancel')}
        </Button>
        <Button kind={asked.danger ? 'danger' : 'primary'} onClick={() => answer(true)}>
          {asked.action}
        </Button>
      </footer>
    </Dialog>
  )
}

const said = signal<{ text: string; at: number } | null>(null)
const SHOWN = 5000 // milliseconds

// A short word on what has gone well.
export function say(key: TextKey, values: Record<string, string | number> = {}): void {
  const at = Date.now()
  said.value = { text: t(key, values), at }
  setTimeout(() => {
    if (said.peek()?.at === at) said.value = null
  }, SHOWN)
}
// It is about the page that it was said on.
export const hush = (): void => {
  said.value = null
}
export const Sayings = () => (
  <div class="said" role="status" aria-live="polite">
    {said.value && <span>{said.value.text}</span>}
  </div>
)

// A job of which only one runs at a time, with its failure until the next one starts.
export function useJob() {
  const [busy, setBusy] = useState('')
  const [last, setLast] = useState('') // what ran last, and has failed if there is a failure
  const [failure, setFailure] = useState<unknown>(null)
  const run = async (name: string, work: () => Promise<void>): Promise<void> => {
    setBusy(name)
    setLast(name)
    setFailure(null)
    try {
      await work()
    } catch (thrown) {
      setFailure(thrown)
    }
    setBusy('')
  }
  return { busy, last, failure, run }
}

// The end of a form with the job "save": its failure, other buttons, and the button that runs the job.
export const SaveRow = ({
  job,
  action = t('save'),
  children,
}: {
  job: ReturnType<typeof useJob>
  action?: string
  children?: ComponentChildren
}) => (
  <>
    <Failure failure={job.failure} />
    <div class="row end">
      {children}
      <Button kind="primary" submit busy={job.busy === 'save'}>
        {action}
      </Button>
    </div>
  </>
)
